// How the sanitizers run in test programs: a request that no memory can satisfy fails, as it does without
// them, and a forked child may start threads. The names are the sanitizers'; without one they are never called.
#define SANITIZER_OPTIONS(name, options)                                                                               \
    extern "C" [[gnu::visibility("default")]] const char* name();                                                      \
    const char* name() { return options; }

SANITIZER_OPTIONS(__asan_default_options, "allocator_may_return_null=1")
SANITIZER_OPTIONS(__tsan_default_options, "allocator_may_return_null=1:die_after_fork=0")
