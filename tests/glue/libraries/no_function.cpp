// Has the exports of libqor and of a module by name, but they are numbers.
extern "C" {
[[gnu::visibility("default")]] int glue_binding_point = 1;
[[gnu::visibility("default")]] int glue_module_point = 1;
}
