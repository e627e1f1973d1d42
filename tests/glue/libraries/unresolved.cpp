// Has the export, but needs a symbol that no other library has.
extern "C" const void* a_symbol_that_nobody_has();
extern "C" [[gnu::visibility("default")]] const void* glue_binding_point() { return a_symbol_that_nobody_has(); }
