#pragma once

// Declares fl::filesystem::path for headers that only name it in signatures. A file that builds,
// converts or inspects a path includes <fl/filesystem/path.hpp> (or <filesystem>).

#include <version> // defines __GLIBCXX__ with libstdc++

#if defined(__GLIBCXX__) && __has_include(<bits/fs_fwd.h>)
#include <bits/fs_fwd.h>
#else
#include <filesystem>
#endif

namespace fl::filesystem {

using path = std::filesystem::path;

} // namespace fl::filesystem
