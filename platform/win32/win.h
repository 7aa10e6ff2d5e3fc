// <windows.h> for the Windows platform sources, with the macros it defines
// that would rename the platform layer's own functions taken back: the
// layer calls the A functions by their full names.
#pragma once
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#undef CreateWindow
#undef DispatchMessage
#undef FatalAppExit
#undef FindFirstFile
#undef FindNextFile
#undef FreeModule
#undef GetMessage
#undef LoadString
#undef OutputDebugString
#undef PeekMessage
#undef PostMessage
#undef RegOpenKey
#undef SendMessage
