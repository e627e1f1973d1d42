// A library cannot consist of precompiled headers alone.
