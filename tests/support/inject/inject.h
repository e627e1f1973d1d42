// The interface between the injector and a program that runs under it; the functions are null without the injector.
#pragma once

extern "C" {

// Makes the call with this number fail, counted from 1 from now on; 0: no call.
[[gnu::weak]] void qor_inject_arm(const char* target, unsigned long at);

// Sets a descriptor to which a byte is written when a call fails.
[[gnu::weak]] void qor_inject_tell(int descriptor);

} // extern "C"
