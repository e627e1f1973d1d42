// A sound library that is not libqor.
extern "C" [[gnu::visibility("default")]] const void* some_other_entry_point() { return nullptr; }
