// The smallest client: what it prints before its first call must come out, whatever becomes of the call.
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
