#pragma once

#include <filesystem>

namespace fl::filesystem {
using path = std::filesystem::path;
}
