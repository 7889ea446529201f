# Warnings are errors for our own code.
add_compile_options(-Wall -Wextra -Werror -Wnon-virtual-dtor -Wimplicit-fallthrough)
set(ZEPN_DRIVER_WARNINGS -Wglobal-constructors -Wexit-time-destructors -Wframe-larger-than=2048)
