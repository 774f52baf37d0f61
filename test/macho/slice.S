/* The slice, a file named by the build. */
        .section .rodata
        .balign 4096
        .globl slice
slice:  .incbin SLICE
        .section .note.GNU-stack, "", %progbits
