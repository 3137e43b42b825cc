#include "Tool.hpp"

#include <fmt/core.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>

#include <sys/stat.h>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace vfs_tool {

std::atomic<bool>& interrupted() noexcept
{
    static std::atomic<bool> flag{false};
    return flag;
}

namespace {

extern "C" void onInterrupt(int)
{
    interrupted().store(true, std::memory_order_relaxed);
}

// The words for a library error code; "not a folder" and "not a file" come from the contexts.
std::string describe(vfs::ErrorCode code, const ustring& contexts)
{
    if (contexts.find(u"not-a-folder") != ustring::npos)
        return "not a folder";
    if (contexts.find(u"not-a-file") != ustring::npos)
        return "not a file";
    if (contexts.find(u"into-itself") != ustring::npos)
        return "cannot move or copy a folder into itself";
    if (contexts.find(u"circular_symlink") != ustring::npos)
        return "a link leads back into the copy";
    if (contexts.find(u"same-file") != ustring::npos)
        return "source and target are the same file";
    if (contexts.find(u"ENAMETOOLONG") != ustring::npos)
        return "name or path too long";
    switch (code) {
    case vfs::ErrorCode::FolderNotEmpty: return "folder not empty";
    case vfs::ErrorCode::InvalidLocation: return "invalid location";
    case vfs::ErrorCode::PermissionDenied: return "permission denied";
    case vfs::ErrorCode::ResourceAlreadyExists: return "already exists";
    case vfs::ErrorCode::ResourceNotFound: return "no such file or folder";
    case vfs::ErrorCode::ReadOnlyProvider: return "read-only storage";
    case vfs::ErrorCode::FileTooLarge: return "file too large";
    case vfs::ErrorCode::ResourceInUse: return "in use";
    case vfs::ErrorCode::NoSpaceLeft: return "no space left";
    case vfs::ErrorCode::IOError: return "input/output error";
    case vfs::ErrorCode::InternalError: return "internal error";
    case vfs::ErrorCode::UnsupportedOperation: return "not supported here";
    case vfs::ErrorCode::Unknown: break;
    }
    return "failed";
}

void printFailure(const std::string& command, const std::string& what, const std::string& location)
{
    std::fflush(stdout);
    if (location.empty())
        fmt::print(stderr, "vfs: {}: {}\n", command, what);
    else
        fmt::print(stderr, "vfs: {}: {}: {}\n", command, what, location);
}

} // namespace

void installInterruptHandler()
{
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    // Interrupted reads and writes resume; the work itself notices the flag between steps.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
}

void checkInterrupted()
{
    if (interrupted().load(std::memory_order_relaxed))
        throw ToolError("interrupted", "");
}

// Names go out as the bytes they have on disk, as ls and find write them; text that names no bytes
// (a lone surrogate of another kind) is printed lossily.
std::string utf8(const ustring& text)
{
    try {
        return fl::i18n::ustring_to_native(text);
    } catch (const fl::i18n::conversion_error&) {
        return fl::i18n::ustring_to_utf8_lossy(text);
    }
}

ustring utf16(const std::string& text) { return fl::i18n::native_to_ustring(text); }

std::string jsonText(const std::string& printed) { return fl::i18n::ustring_to_utf8_lossy(utf16(printed)); }

std::string describe(const vfs::IOException& error)
{
    return describe(error.getErrorCode(), error.getExceptionContextsString());
}

std::string display(const vfs::AbsoluteIRI& location)
{
    // A file IRI with a host or an escaped NUL has no local path: it is shown as written.
    try {
        if (location.getScheme() == u"file" && !location.hasInnerIRI())
            return vfs::fromAbsoluteIRI(location).string();
    } catch (const std::exception&) {
    }
    return utf8(location.toString());
}

namespace {

// A plain path names what the kernel finds there: ".." after a link leads to the parent of the
// link's target, not back to the text before the link. The path up to its last ".." is therefore
// resolved by the kernel; what follows is kept as written, so that a last name that is a link
// still names the link.
std::filesystem::path resolvedAsTheKernelDoes(const std::string& operand)
{
    const std::filesystem::path path(operand);
    std::filesystem::path head;
    std::filesystem::path tail;
    bool climbs = false;
    for (const auto& part : path) {
        tail /= part;
        if (part == "..") {
            head /= tail;
            tail.clear();
            climbs = true;
        }
    }
    if (!climbs)
        return path;
    char* resolved = ::realpath(head.c_str(), nullptr);
    if (!resolved) {
        if (errno == ENAMETOOLONG)
            throw ToolError("path too long", operand);
        throw ToolError(errno == EACCES ? "permission denied" : "no such file or folder", operand);
    }
    std::filesystem::path result(resolved);
    std::free(resolved);
    // A trailing slash stays: it says the operand must be a folder.
    return tail.empty() ? result : result / tail;
}

} // namespace

Tool::Tool() : m_system(std::make_shared<vfs::DefaultStorageSystem>()) {}
Tool::~Tool() = default;

vfs::StorageSystemReference Tool::system() const
{
    return vfs::StorageSystemReference{std::weak_ptr<vfs::StorageSystem>(m_system)};
}

vfs::AbsoluteIRI Tool::locate(const std::string& operand) const
{
    if (operand.empty())
        throw ToolError("empty location", "''", Usage);
    const ustring text = fl::i18n::native_to_ustring(operand);
    try {
        if (vfs::hasIRIPrefix(text))
            return vfs::AbsoluteIRI(text);
    } catch (const std::exception&) {
        throw ToolError("not a valid IRI", operand, Usage);
    }
    const std::filesystem::path path = resolvedAsTheKernelDoes(operand);
    try {
        return vfs::toAbsoluteIRI(u"", path);
    } catch (const std::exception&) {
        throw ToolError("neither an IRI nor a path", operand, Usage);
    }
}

vfs::File Tool::file(const vfs::AbsoluteIRI& location) const { return vfs::File(location, system()); }

vfs::Folder Tool::folder(const vfs::AbsoluteIRI& location) const { return vfs::Folder(location, system()); }

namespace {

// What the local disk says of the location itself, a link not followed; nothing for other storages.
std::optional<struct stat> localLinkInfo(const vfs::AbsoluteIRI& location)
{
    if (location.getScheme() != u"file" || location.hasInnerIRI())
        return std::nullopt;
    std::string path;
    try {
        path = vfs::fromAbsoluteIRI(location).string();
    } catch (const std::exception&) {
        return std::nullopt;
    }
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return std::nullopt;
    return info;
}

} // namespace

bool Tool::isLinkAt(const vfs::AbsoluteIRI& location) const
{
    const auto info = localLinkInfo(location);
    return info && S_ISLNK(info->st_mode);
}

std::uint64_t Tool::linkSize(const vfs::AbsoluteIRI& location) const
{
    const auto info = localLinkInfo(location);
    return info && S_ISLNK(info->st_mode) ? static_cast<std::uint64_t>(info->st_size) : 0;
}

vfs::TreeBoundary onFileSystemOf(const vfs::Folder& root, std::function<void(const vfs::Folder&)> leftOut)
{
    return [device = root.getExtendedAttributes().device, leftOut = std::move(leftOut)](const vfs::Folder& folder) {
        if (folder.getExtendedAttributes().device == device)
            return true;
        if (leftOut)
            leftOut(folder);
        return false;
    };
}

provider::ExistenceType Tool::kindAt(const vfs::AbsoluteIRI& location) const
{
    return vfs::exists(location, system());
}

provider::ExistenceType Tool::existingKindAt(const vfs::AbsoluteIRI& location, const std::string& operand) const
{
    const auto kind = kindAt(location);
    if (kind == provider::ExistenceType::NotFound)
        throw ToolError("no such file or folder", operand);
    return kind;
}

int reportCurrentFailure(const std::string& command)
{
    try {
        throw;
    } catch (const ToolError& error) {
        printFailure(command, error.what(), error.location());
        return error.exitCode();
    } catch (const vfs::Exception& error) {
        printFailure(command, describe(error.getErrorCode(), error.getExceptionContextsString()),
                     display(error.getLocation()));
    } catch (const vfs::UnsupportedIRISchemeException& error) {
        printFailure(command, "no storage for the scheme", utf8(error.getScheme()));
        return Usage;
    } catch (const vfs::InvalidIRIException& error) {
        printFailure(command, "not a valid IRI", utf8(error.getInvalidIRIString()));
        return Usage;
    } catch (const std::exception& error) {
        printFailure(command, error.what(), "");
    }
    return Failed;
}

int runReported(const std::string& command, const std::function<int()>& body)
{
    try {
        return body();
    } catch (...) {
        return reportCurrentFailure(command);
    }
}

} // namespace vfs_tool
