// A client that carries out the commands of a test, one a line, and answers each with a line: "ok" and the result, or
// "error", the number of the error, and its text. Paths and bytes are in hexadecimal digits; "-" is an empty text.
//
//   file_driver            uses the class qorFile
//   file_driver --handle   uses the operations by a handle
#include "qor/qor.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using words = std::vector<std::string>;

std::string bytes_of(const std::string& digits) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
    return bytes;
}

std::string digits_of(std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        text += digits[static_cast<unsigned char>(c) >> 4];
        text += digits[c & 15];
    }
    return text.empty() ? "-" : text;
}

uint64 number(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 10); }

// Both forms of the operations, behind one face.
class tested {
public:
    virtual ~tested() = default;
    virtual bool open(const char* path, uint32 mode) = 0;
    virtual bool create_unique(const char* folder, const char* begin, const char* end, qorString& path) = 0;
    virtual bool close() = 0;
    virtual bool close_and_delete() = 0;
    virtual bool read(void* buffer, uint64 length, uint64* count) = 0;
    virtual bool read_exact(void* buffer, uint64 length) = 0;
    virtual bool read_at(uint64 offset, void* buffer, uint32 length) = 0;
    virtual bool write(const void* bytes, uint64 length) = 0;
    virtual bool write_at(uint64 offset, const void* bytes, uint64 length) = 0;
    virtual bool seek(int64 offset, qorFileOrigin origin) = 0;
    virtual uint64 tell() = 0;
    virtual bool flush(qorFlushTo where) = 0;
    virtual uint64 size() = 0;
    virtual bool set_size(uint64 size) = 0;
    virtual bool info(qorFileInfo& out) = 0;
};

class by_class final : public tested {
public:
    bool open(const char* path, uint32 mode) override { return m_file.Open(path, mode); }
    bool create_unique(const char* folder, const char* begin, const char* end, qorString& path) override {
        return m_file.CreateUnique(folder, begin, end, path);
    }
    bool close() override {
        m_file.Close();
        return true;
    }
    bool close_and_delete() override { return m_file.CloseAndDelete(); }
    bool read(void* buffer, uint64 length, uint64* count) override { return m_file.Read(buffer, length, count); }
    bool read_exact(void* buffer, uint64 length) override { return m_file.ReadExact(buffer, length); }
    bool read_at(uint64 offset, void* buffer, uint32 length) override { return m_file.ReadAt(offset, buffer, length); }
    bool write(const void* bytes, uint64 length) override { return m_file.Write(bytes, length); }
    bool write_at(uint64 offset, const void* bytes, uint64 length) override {
        return m_file.WriteAt(offset, bytes, length);
    }
    bool seek(int64 offset, qorFileOrigin origin) override { return m_file.Seek(offset, origin); }
    uint64 tell() override { return m_file.Tell(); }
    bool flush(qorFlushTo where) override { return m_file.Flush(where); }
    uint64 size() override { return m_file.GetSize(); }
    bool set_size(uint64 size) override { return m_file.SetFileSize(size); }
    bool info(qorFileInfo& out) override { return m_file.GetFileInfo(out); }

private:
    qorFile m_file;
};

class by_handle final : public tested {
public:
    by_handle() = default;
    by_handle(const by_handle&) = delete;
    by_handle& operator=(const by_handle&) = delete;
    ~by_handle() override { close(); }
    bool open(const char* path, uint32 mode) override {
        close();
        return qorFileOpen(path, mode, &m_file);
    }
    bool create_unique(const char* folder, const char* begin, const char* end, qorString& path) override {
        close();
        return qorFileCreateUnique(folder, begin, end, path, &m_file);
    }
    bool close() override { return m_file == nullptr || qorFileClose(std::exchange(m_file, nullptr)); }
    bool close_and_delete() override { return qorFileCloseAndDelete(std::exchange(m_file, nullptr)); }
    bool read(void* buffer, uint64 length, uint64* count) override {
        return qorFileRead(m_file, buffer, length, count);
    }
    bool read_exact(void* buffer, uint64 length) override { return qorFileReadExact(m_file, buffer, length); }
    bool read_at(uint64 offset, void* buffer, uint32 length) override {
        return qorFileReadAt(m_file, offset, buffer, length);
    }
    bool write(const void* bytes, uint64 length) override { return qorFileWrite(m_file, bytes, length); }
    bool write_at(uint64 offset, const void* bytes, uint64 length) override {
        return qorFileWriteAt(m_file, offset, bytes, length);
    }
    bool seek(int64 offset, qorFileOrigin origin) override { return qorFileSeek(m_file, offset, origin); }
    uint64 tell() override { return qorFileTell(m_file); }
    bool flush(qorFlushTo where) override { return qorFileFlush(m_file, where); }
    uint64 size() override { return qorFileGetSize(m_file); }
    bool set_size(uint64 size) override { return qorFileSetFileSize(m_file, size); }
    bool info(qorFileInfo& out) override { return qorFileGetFileInfo(m_file, out); }

private:
    qorOpenFile* m_file = nullptr;
};

class driver {
public:
    explicit driver(bool uses_handles) {
        for (std::unique_ptr<tested>& each : m_files)
            if (uses_handles)
                each = std::make_unique<by_handle>();
            else
                each = std::make_unique<by_class>();
    }

    // Returns the answer to a command. The first word of one that concerns a file is followed by its number, 0 or 1.
    std::string carry_out(const words& command) {
        qorClearLastError();
        std::string result;
        const auto found = commands.find(command[0]);
        if (found == commands.end())
            return "unknown command " + command[0];
        const bool done = (this->*found->second)(command, result);
        qorString text;
        const uint32 error = qorGetLastError(text);
        if (done == (error != qorError_none))
            return "contradiction: " + std::to_string(done) + " " + text.Text();
        return done ? "ok " + result : "error " + std::to_string(error) + " " + text.Text();
    }

private:
    using action = bool (driver::*)(const words& command, std::string& result);
    static const std::map<std::string, action> commands;

    tested& file(const words& command) { return *m_files[number(command[1]) & 1]; }

    static std::string path(const std::string& word) { return bytes_of(word == "-" ? "" : word); }

    bool open(const words& c, std::string&) {
        return file(c).open(path(c[2]).c_str(), static_cast<uint32>(number(c[3])));
    }
    bool unique(const words& c, std::string& result) {
        qorString made("before");
        const std::string folder = path(c[2]);
        const bool done =
            file(c).create_unique(c[2] == "-" ? nullptr : folder.c_str(), path(c[3]).c_str(), path(c[4]).c_str(), made);
        result = digits_of(made);
        return done || (made.Length() != 0 ? std::abort() : void(), false);
    }
    bool close(const words& c, std::string&) { return file(c).close(); }
    bool close_and_delete(const words& c, std::string&) { return file(c).close_and_delete(); }
    bool read(const words& c, std::string& result) {
        std::string buffer(number(c[2]), '?');
        uint64 count = 0;
        const bool done = file(c).read(buffer.data(), buffer.size(), &count);
        result = digits_of(std::string_view(buffer).substr(0, count));
        return done;
    }
    bool read_exact(const words& c, std::string& result) {
        std::string buffer(number(c[2]), '?');
        const bool done = file(c).read_exact(buffer.data(), buffer.size());
        result = digits_of(buffer);
        return done;
    }
    bool read_at(const words& c, std::string& result) {
        std::string buffer(number(c[3]), '?');
        const bool done = file(c).read_at(number(c[2]), buffer.data(), static_cast<uint32>(buffer.size()));
        result = digits_of(buffer);
        return done;
    }
    bool write(const words& c, std::string&) {
        const std::string bytes = path(c[2]);
        return file(c).write(bytes.data(), bytes.size());
    }
    bool write_at(const words& c, std::string&) {
        const std::string bytes = path(c[3]);
        return file(c).write_at(number(c[2]), bytes.data(), bytes.size());
    }
    bool seek(const words& c, std::string&) {
        return file(c).seek(std::strtoll(c[2].c_str(), nullptr, 10), static_cast<qorFileOrigin>(number(c[3])));
    }
    bool tell(const words& c, std::string& result) {
        result = std::to_string(file(c).tell());
        return !has_error();
    }
    bool size(const words& c, std::string& result) {
        result = std::to_string(file(c).size());
        return !has_error();
    }
    bool flush(const words& c, std::string&) { return file(c).flush(static_cast<qorFlushTo>(number(c[2]))); }
    bool set_size(const words& c, std::string&) { return file(c).set_size(number(c[2])); }
    bool info(const words& c, std::string& result) {
        qorFileInfo info;
        const bool done = file(c).info(info);
        for (const uint64 each : {static_cast<uint64>(info.kind), uint64{info.rights}, info.size, info.modified,
                                  info.accessed, info.created})
            result += std::to_string(each) + " ";
        return done;
    }
    bool replace(const words& c, std::string&) {
        return qorReplaceFile(path(c[1]).c_str(), path(c[2]), static_cast<uint32>(number(c[3])));
    }
    // Copies a file by a source and a target.
    bool copy(const words& c, std::string& result) {
        qorFileSource from;
        qorFileTarget to;
        if (!from.Open(path(c[1]).c_str()) || !to.Open(path(c[2]).c_str(), static_cast<uint32>(number(c[3]))))
            return false;
        // Some bytes are in the buffers when the copying begins.
        std::byte begin[3];
        const auto got = from.Read(begin);
        if (!got || !to.Write(*got))
            return false;
        const auto copied = from.CopyTo(to, number(c[4]));
        if (!copied || !to.Close())
            return false;
        result = std::to_string(got->size() + *copied) + " " + std::to_string(from.GetPosition()) + " " +
                 std::to_string(to.GetPosition());
        return true;
    }
    // Writes bytes to a target in pieces of a given size, and closes it if the last word is 1.
    bool put(const words& c, std::string& result) {
        qorFileTarget to;
        if (!to.Open(path(c[1]).c_str(), static_cast<uint32>(number(c[2]))))
            return false;
        const std::string bytes = path(c[3]);
        const std::size_t step = number(c[4]);
        for (std::size_t at = 0; at < bytes.size(); at += step)
            to.Write(std::string_view(bytes).substr(at, step));
        result = std::to_string(to.GetPosition());
        return c[5] != "1" || to.Close();
    }
    // Reads a file to its end by a source: in pieces of a given size, or 0: in blocks.
    bool get(const words& c, std::string& result) {
        qorFileSource from;
        if (!from.Open(path(c[1]).c_str()))
            return false;
        std::string bytes;
        const std::size_t step = number(c[2]);
        if (step == 0) {
            for (const std::span<const std::byte> block : from)
                bytes.append(reinterpret_cast<const char*>(block.data()), block.size());
        } else {
            std::vector<std::byte> buffer(step);
            for (;;) {
                const auto got = from.Read(buffer);
                if (!got || got->empty())
                    break;
                bytes.append(reinterpret_cast<const char*>(got->data()), got->size());
            }
        }
        result = digits_of(bytes);
        return !from.HasFailed() && from.GetPosition() == bytes.size();
    }

    static bool has_error() {
        qorString text;
        return qorGetLastError(text) != qorError_none;
    }

    std::unique_ptr<tested> m_files[2];
};

const std::map<std::string, driver::action> driver::commands = {
    {"open", &driver::open},         {"unique", &driver::unique},
    {"close", &driver::close},       {"delete", &driver::close_and_delete},
    {"read", &driver::read},         {"read-exact", &driver::read_exact},
    {"read-at", &driver::read_at},   {"write", &driver::write},
    {"write-at", &driver::write_at}, {"seek", &driver::seek},
    {"tell", &driver::tell},         {"size", &driver::size},
    {"flush", &driver::flush},       {"set-size", &driver::set_size},
    {"info", &driver::info},         {"replace", &driver::replace},
    {"copy", &driver::copy},         {"put", &driver::put},
    {"get", &driver::get},
};

} // namespace

int main(int argc, char** argv) {
    driver all(argc > 1 && std::strcmp(argv[1], "--handle") == 0);
    qorString line;
    while (line.GetLine(stdin)) {
        words command;
        qorStringArray parts;
        line.Tokenise_WS(parts);
        for (const qorString& part : parts)
            command.emplace_back(part.Text());
        std::printf("%s\n", all.carry_out(command).c_str());
        std::fflush(stdout);
    }
}
