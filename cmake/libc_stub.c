/* Link-time stand-in for the C library, holding only the stack protector's hook.
 * libozrdcm7 is linked against this instead of libc.so.6 itself: the library then
 * records NEEDED libc.so.6 and a plain, unversioned `__stack_chk_fail` import (the
 * only one it has), which the dynamic loader binds to the C library's default
 * version of the symbol. Never installed, never loaded. */
void __stack_chk_fail(void) {}
