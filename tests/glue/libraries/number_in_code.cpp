// Has an export in its code that is not a function.
__asm__(".text\n"
        ".globl glue_binding_point\n"
        ".type glue_binding_point, %object\n"
        "glue_binding_point: .zero 16\n"
        ".size glue_binding_point, 16\n");
