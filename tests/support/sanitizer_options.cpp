// Options of the sanitizers in test programs: a request for too much memory fails as it does without a sanitizer, and a
// forked child may start threads. The sanitizers define these names; without them the functions are never called.
#define SANITIZER_OPTIONS(name, options)                                                                               \
    extern "C" [[gnu::visibility("default")]] const char* name();                                                      \
    const char* name() { return options; }

SANITIZER_OPTIONS(__asan_default_options, "allocator_may_return_null=1")
SANITIZER_OPTIONS(__tsan_default_options, "allocator_may_return_null=1:die_after_fork=0")
