// The file that a page or an export becomes, or standard output.
//
// A file is written beside its place, under a name of its own that nobody else can have made, and takes its place when
// it is whole. So nothing that exists is opened, what was there stays until then, and a reader never sees a half.
#pragma once

#include "text_sink.h"

#include <cstdint>
#include <string>

namespace qor::heap_tool {

class output_file final : public text_sink {
public:
    output_file() = default;
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;
    ~output_file() override; // removes a file that is not finished

    // `path`: UTF-8; "-" is standard output. False: reason() says why. A file of this name that is not regular stays.
    bool open(const std::string& path);

    // After a failure, nothing more is written.
    void write(std::string_view text) override;

    // False: reason() says why, and the file is not there.
    bool finish();

    // In the words of the system.
    const std::string& reason() const noexcept { return m_reason; }

private:
    static constexpr std::size_t buffer_size = 64U << 10;
    static constexpr int most_tries = 100;

    // Of each system. They return 0 or the error of the system.
    static int check_place(const std::string& path);
    int create(const std::string& path); // a new file; is_taken() of the error if there is one
    static bool is_taken(int error) noexcept;
    int use_standard_output();
    int write_out(std::string_view text);
    int close();
    static int replace(const std::string& path, const std::string& by);
    static void remove(const std::string& path);

    bool fail(int error);

    std::string m_path;   // empty: standard output
    std::string m_beside; // the file so far; empty: none
    std::string m_buffer;
    std::string m_reason;
    std::intptr_t m_file = -1;
};

} // namespace qor::heap_tool
