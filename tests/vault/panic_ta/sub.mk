global-incdirs-y += .
srcs-y += panic_ta.c
