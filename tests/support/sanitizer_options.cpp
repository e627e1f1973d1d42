// How the sanitizers run in test programs: a request that no memory can satisfy fails, as it does without
// them. The names are the sanitizers'; without one they are never called.
#define SANITIZER_OPTIONS(name)                                                                              \
    extern "C" [[gnu::visibility("default")]] const char* name();                                            \
    const char* name() {                                                                                     \
        return "allocator_may_return_null=1";                                                                \
    }

SANITIZER_OPTIONS(__asan_default_options)
SANITIZER_OPTIONS(__tsan_default_options)
