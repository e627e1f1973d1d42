// Has the symbol that a library needs, but is never where that library could find it.
extern "C" const void* a_symbol_that_nobody_has() { return nullptr; }
