#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace vfs_test {

// A fresh folder under the system's temporary folder (or under `parent`), removed with everything in
// it when the object goes. Removal first gives every folder back its owner permissions, so a test
// that made a folder unreadable cannot leave it behind.
class TempDir {
public:
    explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
    {
        std::string pattern = (parent / "vfs-test-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        m_path = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir()
    {
        makeRemovable(m_path);
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const noexcept { return m_path; }
    std::filesystem::path operator/(const std::filesystem::path& relative) const { return m_path / relative; }

    // Creates the file `relative` (and missing folders on the way) holding `contents`.
    std::filesystem::path writeFile(const std::filesystem::path& relative, std::string_view contents = {}) const
    {
        const std::filesystem::path target = m_path / relative;
        std::filesystem::create_directories(target.parent_path());
        std::ofstream out(target, std::ios::binary | std::ios::trunc);
        out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        if (!out)
            throw std::runtime_error("cannot write " + target.string());
        return target;
    }

    std::filesystem::path makeFolder(const std::filesystem::path& relative) const
    {
        const std::filesystem::path target = m_path / relative;
        std::filesystem::create_directories(target);
        return target;
    }

private:
    static void makeRemovable(const std::filesystem::path& folder) noexcept
    {
        struct stat info {};
        if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
            return;
        ::chmod(folder.c_str(), S_IRWXU);
        std::error_code error;
        for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
            makeRemovable(it->path());
    }

    std::filesystem::path m_path;
};

} // namespace vfs_test
