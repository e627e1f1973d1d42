#include "machine_code.h"

// A function, with the instructions that push and with the directives for its frame.
#define QOR_CODE(name, text)                                                                                           \
    __asm__(".text\n.globl " #name "\n.type " #name ", @function\n.p2align 4\n" #name ":\n.cfi_startproc\n" text       \
            ".cfi_endproc\n.size " #name ", .-" #name "\n");

// act and argument are in rdi and rsi.
#define QOR_CALL "movq %rdi, %rax\nmovq %rsi, %rdi\ncall *%rax\n"
// In rsi and rdx.
#define QOR_CALL_SECOND "movq %rdx, %rdi\ncall *%rsi\n"

QOR_CODE(code_by_rbx, "pushq %rbx\n.cfi_def_cfa_offset 16\n.cfi_offset %rbx, -16\n"
                      "movq %rsp, %rbx\n.cfi_def_cfa_register %rbx\n"
                      "pushq %rbp\n.cfi_offset %rbp, -24\n"
                      "movq $12345, %rbp\n"
                      "andq $-64, %rsp\nsubq $64, %rsp\n" QOR_CALL "movq -8(%rbx), %rbp\n.cfi_restore %rbp\n"
                      "movq %rbx, %rsp\n.cfi_def_cfa_register %rsp\npopq %rbx\n.cfi_def_cfa_offset 8\n"
                      ".cfi_restore %rbx\nret\n")
QOR_CODE(code_by_r12, "pushq %r12\n.cfi_def_cfa_offset 16\n.cfi_offset %r12, -16\n"
                      "movq %rsp, %r12\n.cfi_def_cfa_register %r12\n"
                      "andq $-64, %rsp\nsubq $64, %rsp\n" QOR_CALL
                      "movq %r12, %rsp\n.cfi_def_cfa_register %rsp\npopq %r12\n.cfi_def_cfa_offset 8\n"
                      ".cfi_restore %r12\nret\n")
QOR_CODE(code_with_garbage_in_rbp,
         "pushq %rbp\n.cfi_def_cfa_offset 16\n.cfi_offset %rbp, -16\n"
         "movq $0x123456789abcdef1, %rbp\n" QOR_CALL "popq %rbp\n.cfi_def_cfa_offset 8\n.cfi_restore %rbp\nret\n")
QOR_CODE(code_on_stack, "pushq %rbp\n.cfi_def_cfa_offset 16\n.cfi_offset %rbp, -16\n"
                        "movq %rsp, %rbp\n.cfi_def_cfa_register %rbp\n"
                        "movq %rdi, %rsp\n" QOR_CALL_SECOND
                        "movq %rbp, %rsp\n.cfi_def_cfa_register %rsp\npopq %rbp\n.cfi_def_cfa_offset 8\n"
                        ".cfi_restore %rbp\nret\n")
// CFA: rsp + 16 by way of some of the operations; the return address where it is; rbp in memory.
QOR_CODE(code_by_expressions,
         "pushq %rbp\n"
         ".cfi_escape 0x0f, 13, 0x77, 8, 0x38, 0x22, 0x32, 0x12, 0x1c, 0x22, 0x31, 0x13, 0x96, 0x96, 0x96\n"
         ".cfi_escape 0x10, 6, 2, 0x77, 0\n"
         ".cfi_escape 0x10, 16, 5, 0x77, 0, 0x23, 8, 0x96\n"
         "movq $77, %rbp\n" QOR_CALL "popq %rbp\n.cfi_def_cfa %rsp, 8\n.cfi_restore %rbp\n.cfi_offset %rip, -8\nret\n")
QOR_CODE(code_without_caller,
         "subq $8, %rsp\n.cfi_def_cfa_offset 16\n.cfi_undefined %rip\n" QOR_CALL "addq $8, %rsp\nret\n")
QOR_CODE(code_far_up, "subq $8, %rsp\n.cfi_def_cfa_offset 0x1000000\n" QOR_CALL "addq $8, %rsp\nret\n")
QOR_CODE(code_across_page, "subq $8, %rsp\n.cfi_def_cfa_offset 4096\n" QOR_CALL "addq $8, %rsp\nret\n")
QOR_CODE(code_by_lost_rbp, "pushq %rbp\n.cfi_def_cfa %rbp, 16\n.cfi_offset %rbp, -16\nmovq %rdi, %rbp\n" QOR_CALL_SECOND
                           "popq %rbp\nret\n")
QOR_CODE(code_read_from, "pushq %rbp\n.cfi_escape 0x0f, 3, 0x76, 0x78, 0x06\n.cfi_escape 0x10, 6, 2, 0x76, 0\n"
                         "movq %rdi, %rbp\n" QOR_CALL_SECOND "popq %rbp\nret\n")
QOR_CODE(code_to_data,
         "subq $8, %rsp\npushq %rsp\npushq %rsp\n.cfi_def_cfa_offset 16\n" QOR_CALL "addq $24, %rsp\nret\n")
QOR_CODE(code_circle, "subq $8, %rsp\n.cfi_def_cfa_offset 0\n" QOR_CALL "addq $8, %rsp\nret\n")

// Behind a call that does not return; it returns at once itself.
QOR_CODE(code_before_function, "call abort@PLT\n")
__asm__(".text\n.globl code_after_call\n.type code_after_call, @function\ncode_after_call:\n.cfi_startproc\nret\n"
        ".cfi_endproc\n.size code_after_call, .-code_after_call\n");
