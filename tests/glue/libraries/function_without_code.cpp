// Its export is marked as a function, but is in memory that cannot be executed.
__asm__(".data\n"
        ".globl glue_binding_point\n"
        ".type glue_binding_point, %function\n"
        "glue_binding_point: .zero 16\n"
        ".size glue_binding_point, 16\n"
        ".text\n");
