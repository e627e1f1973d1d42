// What a program that runs under the injector says to it; null where it runs without.
#pragma once

extern "C" {

// From now on the call with this number, counted from 1, fails; 0: none.
[[gnu::weak]] void qor_inject_arm(const char* target, unsigned long at);

// A descriptor to which a byte is written when a call fails.
[[gnu::weak]] void qor_inject_tell(int descriptor);

} // extern "C"
