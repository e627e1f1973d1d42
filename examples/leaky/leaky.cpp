// A program that leaks on purpose. The demo logs in samples/ were recorded from it.
//
// It keeps a list of readings as a real program might, and fails to free some of its memory: an object with a type
// name, blocks with a source line, a block that has grown, pages that did not come from malloc, and a block from
// malloc of which only the caller is known. If a log is written, it also frees a block twice, which the log shows;
// without a log the C library would end the program.
#include "qor/qor.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

constexpr char source[] = "examples/leaky/leaky";

// Announces its type name, which the allocation log shows.
class reading : public qorRefObject {
public:
    explicit reading(double value) : qorRefObject("examples.leaky.reading") {
        for (double& sample : m_samples)
            sample = value;
    }
    double mean() const {
        double sum = 0;
        for (const double sample : m_samples)
            sum += sample;
        return sum / static_cast<double>(std::size(m_samples));
    }

private:
    double m_samples[96];
};

// Forgets one reading in four: its reference is dropped without a Release.
double take_readings(int count) {
    zetArray<zetSmartPointer<reading>> readings;
    double sum = 0;
    for (int i = 0; i < count; ++i) {
        zetSmartPointer<reading> one;
        one.AttachNew(new (source, __LINE__) reading(i * 0.5));
        sum += one->mean();
        readings.Append(one);
    }
    for (int i = 3; i < count; i += 4)
        (void)readings[static_cast<uint32>(i)].Detach();
    return sum;
}

// A line grows as text is added, and the first one leaks.
void write_lines(int count) {
    constexpr uint64 first = 5000;
    for (int i = 0; i < count; ++i) {
        char* line = static_cast<char*>(qor_do_malloc(0, first, true, source, __LINE__));
        std::snprintf(line, first, "line %d", i + 1);
        line = static_cast<char*>(qor_do_realloc(line, 3 * first, source, __LINE__));
        if (i != 0)
            qor_do_free(line, source, __LINE__);
    }
}

// The last page is never freed; the first one is freed twice.
void write_report(int pages, bool is_logged) {
    constexpr uint64 page_size = 4096;
    zetArray<char*> written;
    for (int i = 0; i < pages; ++i) {
        char* const page = static_cast<char*>(qor_do_malloc(0, page_size, true, source, __LINE__));
        std::snprintf(page, page_size, "page %d of %d", i + 1, pages);
        written.Append(page);
    }
    for (uint32 i = 0; i < written.GetCount(); ++i) {
        std::printf("%s\n", written[i]);
        if (i + 1 != written.GetCount())
            qor_do_free(written[i], source, __LINE__);
    }
    if (is_logged)
        qor_do_free(written[0], source, __LINE__);
}

// Keeps the compiler from removing unused allocations.
void* volatile used;

// Allocates from the C library, which a framework log does not show.
void fill_table() {
    for (std::size_t size = 100; size <= 500; size += 100) {
        used = std::malloc(size);
        if (size != 300)
            std::free(used);
    }
}

// Allocates pages directly from the system: the mtrace log never shows them, the framework's log does.
void use_huge_block() {
    constexpr uint64 size = 8 * 1024 * 1024;
    char* const scratch = static_cast<char*>(qor_do_huge_alloc(size, source, __LINE__));
    scratch[size - 1] = 1;
    qor_do_huge_free(scratch, source, __LINE__);
    (void)qor_do_huge_alloc(size, source, __LINE__);
}

} // namespace

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    // The framework removes its options and the program's name from the words.
    const uint32 words = args.GetCount();
    if (!qorInitProcess("leaky", args, 0)) {
        fputerr(stderr, true);
        return 1;
    }
    const bool is_logged = std::getenv("QOR_MEMCHECK") != nullptr || args.GetCount() + 1 < words;
    std::printf("sum of means: %.1f\n", take_readings(8));
    write_report(3, is_logged);
    write_lines(2);
    fill_table();
    use_huge_block();
    qorCleanup();
    return 0;
}
