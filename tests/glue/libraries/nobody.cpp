// Has the symbol that another library needs, but is never in a place where that library could find it.
extern "C" const void* a_symbol_that_nobody_has() { return nullptr; }
