#pragma once

// What every command of the tool shares: the storage system, turning command-line operands into
// locations, the exit codes, and the one way a failure becomes a line on stderr.

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/vfs.hpp>

#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace vfs_tool {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;
using fl::i18n::ustring;

enum ExitCode : int { Success = 0, Failed = 1, Usage = 2 };

// A failure the tool words itself ("is a folder (use -r)"); `location` is what it concerns.
class ToolError : public std::runtime_error {
public:
    ToolError(std::string what, std::string location, int exitCode = Failed)
        : std::runtime_error(std::move(what)), m_location(std::move(location)), m_exitCode(exitCode)
    {
    }
    const std::string& location() const noexcept { return m_location; }
    int exitCode() const noexcept { return m_exitCode; }

private:
    std::string m_location;
    int m_exitCode;
};

// Set by SIGINT (Ctrl-C); long work checks it between items and stops cleanly.
std::atomic<bool>& interrupted() noexcept;
void installInterruptHandler();
// Throws ToolError "interrupted" when Ctrl-C was pressed.
void checkInterrupted();

class Tool {
public:
    Tool();
    ~Tool();

    vfs::StorageSystemReference system() const;

    // An operand as a location: an IRI ("file:///x", "mem://vol/x") or a local path, relative ones
    // against the working directory. Neither: ToolError with the usage exit code.
    vfs::AbsoluteIRI locate(const std::string& operand) const;
    vfs::File file(const vfs::AbsoluteIRI& location) const;
    vfs::Folder folder(const vfs::AbsoluteIRI& location) const;
    // Whether the location is a local link (dangling or not); such an operand names the link.
    bool isLinkAt(const vfs::AbsoluteIRI& location) const;
    // The size of the link itself (the length of what it leads to), 0 where unknown.
    std::uint64_t linkSize(const vfs::AbsoluteIRI& location) const;
    // What is at the location, links followed.
    provider::ExistenceType kindAt(const vfs::AbsoluteIRI& location) const;
    // As kindAt(), failing with "no such file or folder" when nothing is there.
    provider::ExistenceType existingKindAt(const vfs::AbsoluteIRI& location, const std::string& operand) const;

private:
    std::shared_ptr<vfs::DefaultStorageSystem> m_system;
};

// For -x: a boundary that keeps a walk on the file system (device) holding `root`, where its storage
// tells (elsewhere every folder is entered). `leftOut` is told of each folder kept out.
vfs::TreeBoundary onFileSystemOf(const vfs::Folder& root, std::function<void(const vfs::Folder&)> leftOut = {});

// How a person reads a location: a local path for file IRIs, the IRI otherwise. Never throws.
std::string display(const vfs::AbsoluteIRI& location);
std::string utf8(const ustring& text);
// The words for a failed stream operation ("no space left", "input/output error", ...).
std::string describe(const vfs::IOException& error);
ustring utf16(const std::string& text);
// Printed bytes as JSON text: valid UTF-8 whatever a name holds (the exact name is in the IRI).
std::string jsonText(const std::string& printed);

// Runs one command's body; every failure becomes "vfs: COMMAND: WHAT: LOCATION" on stderr and
// the matching exit code.
int runReported(const std::string& command, const std::function<int()>& body);
// Reports one failure the same way and returns its exit code; for commands that go on with their
// other operands after a failure.
int reportCurrentFailure(const std::string& command);

} // namespace vfs_tool
