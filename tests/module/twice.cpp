// Asks for an engine, waits for a line, and asks again, so that a test can change the module in between.
#include "qor/qor.h"

#include <cstdio>

namespace {

void attempt(const char* algorithm) {
    zetSmartPointer<IQORDigestEngine> engine;
    uint8_Array digest;
    const bool made = qorCreateDigestEngine(algorithm, engine.Out()) && engine->GetDigest(digest);
    std::puts(made ? "made" : "failed");
    std::fflush(stdout);
}

} // namespace

int main(int, char** argv) {
    attempt(argv[1]);
    (void)std::getchar();
    attempt(argv[1]);
}
