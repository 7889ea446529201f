// Include first in the one source file that shall hold an image's identifiers.
#pragma once

#ifndef INITGUID
#define INITGUID
#endif
#include <guiddef.h>
