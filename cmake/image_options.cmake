# How a driver image is compiled and linked: for the images built here and for those of client drivers elsewhere
# (zepn-config.cmake).

set(ZEPN_MACHINES arm64 x64)
set(arm64_TRIPLE aarch64-pc-windows-msvc)
set(arm64_DLLTOOL arm64)
set(x64_TRIPLE x86_64-pc-windows-msvc)
set(x64_DLLTOOL i386:x86-64)
set(x64_LINK_OPTIONS /cetcompat)  # kernel-mode shadow stacks are x64's alone

# Not -ffreestanding: small copies and comparisons are then calls instead of a few instructions. The kernel unwinds by
# the tables. No path of the building machine is recorded; who compiles adds -ffile-prefix-map for the sources' folder.
set(ZEPN_IMAGE_COMPILE_OPTIONS -O2 -fasynchronous-unwind-tables -g -gcodeview -gno-codeview-command-line
    -ffile-compilation-dir=. -Xclang -cfguard -fstack-protector-strong)
# Of images and native drivers alike.
set(ZEPN_CPP_OPTIONS -fno-exceptions -fno-rtti -fno-threadsafe-statics)
set(ZEPN_NATIVE_OPTIONS -fPIC -fshort-wchar -fsigned-char)
set(ZEPN_IMAGE_LINK_OPTIONS /nologo /driver /driver:wdm /subsystem:native,10.0 /entry:FxDriverEntry /nodefaultlib
    /opt:ref /opt:noicf /guard:cf /section:.rsrc,RD /release /Brepro /debug /pdbaltpath:%_PDB%
    /pdbsourcepath:C:\\src)

# The framework version in the bind record: the oldest that every Windows 10 and 11 on ARM64 serves.
set(ZEPN_FRAMEWORK_DEFINITIONS KMDF_VERSION_MAJOR=1 KMDF_VERSION_MINOR=15)

# What the WDK would link: the framework's entry stub, and memory routines. Images also need the second list.
set(ZEPN_PLATFORM_SOURCES platform/windows/framework_entry.cpp platform/windows/memory.cpp)
set(ZEPN_IMAGE_SOURCES platform/windows/guard.cpp)
