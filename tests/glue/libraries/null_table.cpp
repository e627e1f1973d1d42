// Has the export, and hands out nothing.
extern "C" [[gnu::visibility("default")]] const void* glue_binding_point() { return nullptr; }
