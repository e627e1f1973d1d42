// The smallest client. Its output before its first call must appear, whatever the call does.
#include "qor/qor.h"

#include <cstdio>

namespace {

struct farewell {
    ~farewell() { std::fputs("end\n", stdout); }
} s_farewell;

} // namespace

int main() {
    std::fputs("before the first call\n", stdout);
    qorStringArray words;
    words.Append("bound");
    std::puts(words[0]);
}
