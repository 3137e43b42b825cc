#pragma once

// Symbols of the shared library `vfs` are hidden unless marked with VFS_EXPORT.
#if defined(__GNUC__) || defined(__clang__)
#define VFS_EXPORT __attribute__((visibility("default")))
#else
#define VFS_EXPORT
#endif
