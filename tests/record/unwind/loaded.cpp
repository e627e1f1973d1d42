// A library that comes and goes. Two of them differ in nothing but the size of a frame, so that an old rule is wrong.
#include "frames.h"

// The program has it.
extern "C" void library_is_loading();

namespace {

struct acts_while_loading {
    acts_while_loading() {
        library_is_loading();
        __asm__ volatile("" : : : "memory");
    }
} const loading;

} // namespace

#define QOR_TEXT_OF(name) #name
#define QOR_TEXT(name) QOR_TEXT_OF(name)
__asm__(".text\n.globl loaded_call\n.type loaded_call, @function\n.p2align 4\nloaded_call:\n.cfi_startproc\n"
        "subq $" QOR_TEXT(FRAME_SIZE) ", %rsp\n.cfi_def_cfa_offset " QOR_TEXT(
            FRAME_SIZE) " + 8\n"
                        "movq %rdi, %rax\nmovq %rsi, %rdi\ncall *%rax\n"
                        "addq $" QOR_TEXT(FRAME_SIZE) ", %rsp\n.cfi_def_cfa_offset 8\nret\n"
                                                      ".cfi_endproc\n.size loaded_call, .-loaded_call\n");
