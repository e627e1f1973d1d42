// Value types, typed arrays, and their form on a stream. It prints:
//
//     640 x 480, moved to 10,20
//     16 bytes on the stream
//     read back: the same
//     squares: 1 4 9 16, sum 30
//     zeros: 64 of 64
#include "qor/qor.h"

#include <algorithm>
#include <numeric>
#include <span>

namespace {

// A sink in memory stands for a file or a connection here.
void write_and_read(const qorRect& window) {
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    window.Write(*sink);
    fixed_fprintf(stdout, "%u bytes on the stream\n", sink->GetSize());

    zetSmartPointer<IQORMemoryDataSource> source;
    create_IQORMemoryDataSource(sink->GetData(), sink->GetSize(), source.Out());
    qorRect copy;
    const bool is_same = copy.Read(*source) && copy == window;
    fixed_fprintf(stdout, "read back: %s\n", is_same ? "the same" : "something else");
}

} // namespace

int main() {
    qorRect window(qorPoint(0, 0), qorSize(640, 480));
    window.OffsetRect(10, 20);
    fixed_fprintf(stdout, "%d x %d, moved to %d,%d\n", window.GetWidth(), window.GetHeight(), window.left, window.top);
    write_and_read(window);

    uint32_Array squares;
    for (uint32 i = 1; i <= 4; ++i)
        squares.Append(i * i);
    const std::span<const uint32> all(squares);
    fixed_fprintf(stdout, "squares:");
    for (const uint32 each : all)
        fixed_fprintf(stdout, " %u", each);
    fixed_fprintf(stdout, ", sum %u\n", std::accumulate(all.begin(), all.end(), 0U));

    char* const block = static_cast<char*>(qor_do_malloc(qor_get_simd_alignment(), 64));
    simd_zero(block, 64);
    fixed_fprintf(stdout, "zeros: %d of 64\n", static_cast<int>(std::count(block, block + 64, '\0')));
    qor_do_free(block);
}
