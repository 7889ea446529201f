# Warnings are errors for our own code.
add_compile_options(-Wall -Wextra -Werror -Wnon-virtual-dtor -Wimplicit-fallthrough)
# For the driver's sources. Constant evaluation stays far below the number of steps that Microsoft's compiler allows
# (100,000): what does not compile here may not compile there.
set(ZEPN_DRIVER_WARNINGS -Wglobal-constructors -Wexit-time-destructors -Wframe-larger-than=2048
    -fconstexpr-steps=20000)
