// Open modes against rules written out here on their own: every combination of the iostream flags
// (through OpenMode and the three file streams) and every C mode string (through openPosixFile and
// openCFile) is either refused with the library's exception or opens the file for exactly the
// access, creation, truncation and appending that the rules give. Runs on the memory provider.

#include "FuzzInput.hpp"

#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/FileStream.hpp>
#include <foundation/storage/vfs/IODevice.hpp>
#include <foundation/storage/vfs/OpenMode.hpp>
#include <foundation/storage/vfs/PosixFILE.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <ios>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

constexpr int in = std::ios_base::in;
constexpr int out = std::ios_base::out;
constexpr int app = std::ios_base::app;
constexpr int truncating = std::ios_base::trunc;
constexpr int ate = std::ios_base::ate;
constexpr int binary = std::ios_base::binary;

const vfs::File& scratchFile()
{
    static const auto system = std::make_shared<vfs::DefaultStorageSystem>();
    static const vfs::File file(vfs::AbsoluteIRI(u"mem://fuzz/mode.txt"),
                                vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system)));
    return file;
}

// The file holds `content`, or is missing when there is none.
void prepare(const std::optional<std::string>& content)
{
    const vfs::File& file = scratchFile();
    if (!content) {
        if (file.fileExists())
            file.removeFile();
        return;
    }
    vfs::IODevice device(file, {provider::ByteStreamAccess::Write, provider::ByteStreamCreation::CreateIfMissing, 0, 1});
    device.write(content->data(), static_cast<std::streamsize>(content->size()));
    device.close();
}

std::optional<std::string> stored()
{
    const vfs::File& file = scratchFile();
    if (!file.fileExists())
        return std::nullopt;
    vfs::IODevice device(file);
    std::string bytes;
    char chunk[64];
    for (std::streamsize got; (got = device.read(chunk, sizeof chunk)) > 0;)
        bytes.append(chunk, static_cast<std::size_t>(got));
    device.close();
    return bytes;
}

// What an open is expected to do.
struct Rule {
    bool refused = false;  // with the library's bad-mode exception
    bool readable = false;
    bool writable = false;
    bool mustExist = false; // a missing file fails with ResourceNotFound and stays missing
    bool truncates = false;
    bool appends = false;
    bool atEnd = false;
};

// The iostream flags, stated as rules rather than as a table: app alone or with in implies out;
// without out the open is read-only when in is there and refused otherwise; app with truncating is
// refused; a writable open creates a missing file only when it appends or truncates.
Rule iostreamRule(int mode)
{
    const int decisive = mode & (in | out | app | truncating);
    if (decisive == app || decisive == (in | app))
        mode |= out;
    Rule rule;
    rule.atEnd = (mode & ate) != 0;
    if (!(mode & out)) {
        rule.refused = !(mode & in);
        rule.readable = !rule.refused;
        rule.mustExist = true;
        return rule;
    }
    rule.truncates = (mode & truncating) != 0;
    rule.appends = (mode & app) != 0;
    rule.refused = rule.truncates && rule.appends;
    rule.readable = (mode & in) != 0;
    rule.writable = true;
    rule.mustExist = !rule.truncates && !rule.appends;
    return rule;
}

// The C modes: r, w, a, each optionally followed by +, with any number of b anywhere.
Rule cModeRule(const std::string& mode)
{
    std::string letters;
    for (const char c : mode)
        if (c != 'b')
            letters += c;
    Rule rule;
    const bool plus = letters.size() == 2 && letters[1] == '+';
    if (letters.empty() || letters.size() > 2 || (letters.size() == 2 && !plus) ||
        std::strchr("rwa", letters[0]) == nullptr) {
        rule.refused = true;
        return rule;
    }
    rule.readable = letters[0] == 'r' || plus;
    rule.writable = letters[0] != 'r' || plus;
    rule.mustExist = letters[0] == 'r';
    rule.truncates = letters[0] == 'w';
    rule.appends = letters[0] == 'a';
    return rule;
}

// The content after an open by `rule` of a file holding `before`, and a write of "X" when `writes`.
std::optional<std::string> contentAfter(const Rule& rule, const std::optional<std::string>& before, bool writes)
{
    if (rule.refused || (rule.mustExist && !before))
        return before;
    std::string content = rule.truncates || !before ? std::string() : *before;
    if (!writes || !rule.writable)
        return rule.writable ? std::optional<std::string>(content) : before;
    if (rule.appends || rule.atEnd || content.empty())
        return content + "X";
    content[0] = 'X';
    return content;
}

bool isBadModeError(const std::runtime_error& error)
{
    return std::strcmp(error.what(), "toByteStreamCreate called with bad openmode") == 0;
}

bool isNotFound(const vfs::Exception& error) { return error.getErrorCode() == vfs::ErrorCode::ResourceNotFound; }

// Runs `open` expecting `rule`'s refusal or missing-file failure; true when the open succeeded.
bool opens(const Rule& rule, bool exists, const std::function<void()>& open, const char* what)
{
    try {
        open();
    } catch (const vfs::Exception& error) {
        if (rule.refused || !rule.mustExist || exists || !isNotFound(error))
            vfs_fuzz::violated(what);
        return false;
    } catch (const std::logic_error& error) {
        if (!rule.refused || std::strcmp(error.what(), "Invalid open mode") != 0)
            vfs_fuzz::violated(what);
        return false;
    } catch (const std::runtime_error& error) {
        if (!rule.refused || !isBadModeError(error))
            vfs_fuzz::violated(what);
        return false;
    }
    if (rule.refused || (rule.mustExist && !exists))
        vfs_fuzz::violated(what);
    return true;
}

void checkOpenMode(int mode)
{
    const Rule rule = iostreamRule(mode);
    const vfs::OpenMode openMode(mode);
    const int decisive = mode & (in | out | app | truncating);
    const int normalised = decisive == app || decisive == (in | app) ? mode | out : mode;
    if (openMode.getOpenMode() != normalised || openMode.includesAtEnd() != ((mode & ate) != 0) ||
        openMode.includesBinary() != ((mode & binary) != 0))
        vfs_fuzz::violated("OpenMode keeps the mode, adding out only to app and in|app");
    if (openMode.isReadOnly() != (rule.readable && !rule.writable))
        vfs_fuzz::violated("OpenMode::isReadOnly means in without out");
    if (openMode.isReadOnly())
        return;
    try {
        const provider::ByteStreamOpenOptions options = openMode.toByteStreamOpenOptions();
        const provider::ByteStreamOpenOptions expected{
            rule.readable ? provider::ByteStreamAccess::ReadWrite : provider::ByteStreamAccess::Write,
            rule.mustExist ? provider::ByteStreamCreation::OpenExisting : provider::ByteStreamCreation::CreateIfMissing,
            rule.truncates ? 0u : 1u, rule.appends ? 0u : 1u};
        if (rule.refused || std::memcmp(&options, &expected, sizeof options) != 0)
            vfs_fuzz::violated("toByteStreamOpenOptions gives the access, creation and flags of the rules");
    } catch (const std::runtime_error& error) {
        if (!rule.refused || !isBadModeError(error))
            vfs_fuzz::violated("toByteStreamOpenOptions refuses exactly the modes the rules refuse");
    }
}

template <class Stream>
void checkStream(int mode, int amended, bool canWrite, const std::optional<std::string>& before, const char* what)
{
    prepare(before);
    const Rule rule = iostreamRule(amended);
    std::unique_ptr<Stream> stream;
    if (opens(rule, before.has_value(), [&] { stream = std::make_unique<Stream>(scratchFile(), mode); }, what)) {
        if constexpr (std::is_base_of_v<std::ostream, Stream>) {
            if (canWrite && rule.writable)
                stream->write("X", 1);
        }
        stream->close();
        if (!*stream)
            vfs_fuzz::violated(what);
    }
    if (stored() != contentAfter(rule, before, canWrite))
        vfs_fuzz::violated(what);
}

void checkPosixFile(const std::string& mode, const std::optional<std::string>& before)
{
    prepare(before);
    const Rule rule = cModeRule(mode);
    std::unique_ptr<vfs::PosixFILE> file;
    if (opens(rule, before.has_value(), [&] { file.reset(vfs::openPosixFile(scratchFile(), mode.c_str())); },
              "openPosixFile opens or refuses by the C mode rules")) {
        const std::size_t written = file->fwrite("X", 1, 1);
        if (written != (rule.writable ? 1u : 0u) || (file->ferror() != 0) == rule.writable)
            vfs_fuzz::violated("a PosixFILE writes exactly when its mode allows it");
        file->clearerr();
        const std::optional<std::string> expected = contentAfter(rule, before, true);
        char back[16] = {};
        if (file->fseek(0, SEEK_SET) != 0)
            vfs_fuzz::violated("a PosixFILE seeks to its start");
        const std::size_t got = file->fread(back, 1, sizeof back);
        if (rule.readable ? std::string(back, got) != expected.value_or("") : got != 0 || file->ferror() == 0)
            vfs_fuzz::violated("a PosixFILE reads exactly when its mode allows it, and reads what is stored");
        if (file->fclose() != 0)
            vfs_fuzz::violated("a PosixFILE closes");
    }
    if (stored() != contentAfter(rule, before, true))
        vfs_fuzz::violated("a PosixFILE leaves the content its mode gives");
}

void checkCFile(const std::string& mode, const std::optional<std::string>& before)
{
    prepare(before);
    const Rule rule = cModeRule(mode);
    FILE* file = nullptr;
    if (opens(rule, before.has_value(), [&] { file = vfs::openCFile(scratchFile(), mode.c_str()); },
              "openCFile opens or refuses by the C mode rules")) {
        const bool wrote = std::fwrite("X", 1, 1, file) == 1 && std::fflush(file) == 0;
        if (wrote != rule.writable)
            vfs_fuzz::violated("a C FILE writes exactly when its mode allows it");
        std::clearerr(file);
        const std::optional<std::string> expected = contentAfter(rule, before, true);
        char back[16] = {};
        if (std::fseek(file, 0, SEEK_SET) != 0)
            vfs_fuzz::violated("a C FILE seeks to its start");
        const std::size_t got = std::fread(back, 1, sizeof back, file);
        if (rule.readable ? std::string(back, got) != expected.value_or("") : got != 0)
            vfs_fuzz::violated("a C FILE reads exactly when its mode allows it, and reads what is stored");
        if (std::fclose(file) != 0)
            vfs_fuzz::violated("a C FILE closes");
    }
    if (stored() != contentAfter(rule, before, true))
        vfs_fuzz::violated("a C FILE leaves the content its mode gives");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Byte 0: six bits pick the iostream flags, one whether the file exists beforehand. The rest,
    // up to six bytes, is a C mode string, mostly over its own letters.
    if (size < 1 || size > 7)
        return 0;
    static const int flags[] = {in, out, app, truncating, ate, binary};
    int mode = 0;
    for (int bit = 0; bit < 6; ++bit)
        if (data[0] & (1 << bit))
            mode |= flags[bit];
    const std::optional<std::string> before =
        data[0] & 0x40 ? std::optional<std::string>("old") : std::nullopt;
    std::string cMode;
    for (std::size_t i = 1; i < size && data[i] != 0; ++i)
        cMode += data[i] < 0xE0 ? "rwab+"[data[i] % 5] : static_cast<char>(data[i]);

    checkOpenMode(mode);
    const int ofstreamMode = mode & (in | app | truncating) ? mode | out : mode | out | truncating;
    checkStream<vfs::fstream>(mode, mode, true, before, "an fstream opens by the rules");
    checkStream<vfs::ifstream>(mode, mode | in, false, before, "an ifstream opens by the rules");
    checkStream<vfs::ofstream>(mode, ofstreamMode, true, before, "an ofstream opens by the rules");
    checkPosixFile(cMode, before);
    checkCFile(cMode, before);
    return 0;
}
