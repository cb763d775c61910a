/* A paravirtual kernel that does nothing but block, again whenever it is woken. */
    .text
    .globl _start
_start:
    mov $29, %eax /* sched_op */
    mov $1, %edi  /* block */
    xor %esi, %esi
    syscall
    jmp _start

#define NOTE(type, contents) \
    .long 4, 3f - 2f, type;  \
    .asciz "Xen";            \
    2: contents;             \
    3: .balign 4

    .section .note.Xen, "a", @note
    NOTE(1, .quad _start)       /* entry */
    NOTE(3, .quad 0)            /* virtual base */
    NOTE(4, .quad 0)            /* offset of physical addresses */
    NOTE(5, .asciz "xen-3.0")   /* interface */
    NOTE(6, .asciz "blocker")   /* its name */
    NOTE(8, .asciz "generic")   /* loader */
    NOTE(9, .asciz "yes")       /* page tables */
