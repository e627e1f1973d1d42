// Has the export, but it returns null.
extern "C" [[gnu::visibility("default")]] const void* glue_binding_point() { return nullptr; }
