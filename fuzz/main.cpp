// The entry of a fuzz target in builds without libFuzzer: runs every file of the folders once. The name of the file
// is printed first, so that after a failure it stands in the last line.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** folders) {
    int inputs = 0;
    for (int i = 1; i < count; ++i)
        for (const auto& entry : std::filesystem::directory_iterator(folders[i])) {
            std::fprintf(stderr, "%s\n", entry.path().string().c_str());
            // Exactly as large as the file, so that the sanitizers see a read beyond its end.
            std::vector<char> bytes(entry.file_size());
            if (!std::ifstream(entry.path(), std::ios::binary).read(bytes.data(), std::ssize(bytes)))
                return 1;
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++inputs;
        }
    std::fprintf(stderr, "%d inputs\n", inputs);
    return inputs != 0 ? 0 : 1;
}
