// stat, touch, mkdir: commands about one location.

#include "Commands.hpp"
#include "Output.hpp"

#include <foundation/storage/vfs/FileStream.hpp>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace vfs_tool {

namespace {

// ---- stat ---------------------------------------------------------------------------------------

struct Field {
    std::string label;
    std::string value;
};

void addExtended(boost::json::object& object, std::vector<Field>& fields, const provider::ExtendedAttributes& extended)
{
    const auto time = [&](const char* key, const char* label, const std::optional<boost::posix_time::ptime>& value) {
        if (!value)
            return;
        object[key] = isoTime(*value);
        fields.push_back({label, isoTime(*value)});
    };
    const auto number = [&](const char* key, const char* label, const auto& value, const char* format) {
        if (!value)
            return;
        object[key] = *value;
        fields.push_back({label, fmt::format(fmt::runtime(format), *value)});
    };
    time("accessed", "Accessed", extended.lastAccessed);
    time("changed", "Changed", extended.statusChanged);
    if (extended.posixMode) {
        object["mode"] = *extended.posixMode;
        fields.push_back({"Mode", fmt::format("{:04o}", *extended.posixMode & 07777)});
    }
    number("owner", "Owner", extended.ownerId, "{}");
    number("group", "Group", extended.groupId, "{}");
    number("links", "Links", extended.linkCount, "{}");
    number("device", "Device", extended.device, "{}");
    number("inode", "Inode", extended.inode, "{}");
    number("allocated", "Allocated", extended.allocatedBytes, "{}");
    if (extended.namedAttributes.empty())
        return;
    boost::json::object named;
    for (const auto& [name, value] : extended.namedAttributes) {
        named[name] = value;
        fields.push_back({"xattr " + name, value});
    }
    object["xattrs"] = std::move(named);
}

int runStat(Tool& tool, const std::string& operand, bool json)
{
    const vfs::AbsoluteIRI location = tool.locate(operand);
    const bool isFile = tool.existingKindAt(location, operand) == provider::ExistenceType::File;
    boost::json::object object;
    std::vector<Field> fields;
    object["iri"] = utf8(location.toString());
    object["type"] = isFile ? "file" : "folder";
    fields.push_back({"Location", display(location)});
    fields.push_back({"IRI", utf8(location.toString())});
    fields.push_back({"Type", isFile ? "file" : "folder"});
    const auto yesNo = [](bool value) { return std::string(value ? "yes" : "no"); };
    if (isFile) {
        const vfs::File file = tool.file(location);
        const auto attributes = file.getAttributes();
        addAttributes(object, attributes);
        fields.push_back({"Size", std::to_string(attributes.getSize())});
        fields.push_back({"Modified", isoTime(attributes.getLastModified())});
        fields.push_back({"Writable", yesNo(attributes.isWritable())});
        fields.push_back({"Symlink", yesNo(attributes.isSymlink())});
        fields.push_back({"Hidden", yesNo(attributes.isHidden())});
        addExtended(object, fields, file.getExtendedAttributes());
    } else {
        const vfs::Folder folder = tool.folder(location);
        const auto attributes = folder.getAttributes();
        addAttributes(object, attributes);
        fields.push_back({"Modified", isoTime(attributes.getLastModified())});
        fields.push_back({"Writable", yesNo(attributes.isWritable())});
        fields.push_back({"Symlink", yesNo(attributes.isSymlink())});
        fields.push_back({"Hidden", yesNo(attributes.isHidden())});
        addExtended(object, fields, folder.getExtendedAttributes());
    }
    if (json) {
        printJsonLine(object);
        return Success;
    }
    std::size_t width = 0;
    for (const Field& field : fields)
        width = std::max(width, field.label.size());
    for (const Field& field : fields)
        fmt::print("{:>{}}: {}\n", field.label, width, field.value);
    return Success;
}

// ---- cat ----------------------------------------------------------------------------------------

int runCat(Tool& tool, const std::vector<std::string>& operands)
{
    // One aligned buffer for every file, filled from the stream's own.
    constexpr std::size_t kChunk = 128 * 1024;
    struct Free {
        void operator()(char* buffer) const noexcept { std::free(buffer); }
    };
    const std::unique_ptr<char, Free> buffer(static_cast<char*>(std::aligned_alloc(4096, kChunk)));
    if (!buffer)
        throw std::bad_alloc();
    // A read from a FIFO or a terminal can wait for ever: Ctrl-C ends cat at once, as it ends the
    // classic cat. Nothing is left half done by that.
    std::signal(SIGINT, SIG_DFL);
    if (interrupted().load())
        std::raise(SIGINT);
    int status = Success;
    for (const std::string& operand : operands) {
        const int result = runReported("cat", [&] {
            const vfs::AbsoluteIRI location = tool.locate(operand);
            if (tool.existingKindAt(location, operand) == provider::ExistenceType::Folder)
                throw ToolError("is a folder", operand);
            try {
                vfs::ifstream in(tool.file(location), std::ios::binary);
                in.exceptions(std::ios::badbit);
                // What one read of the storage gave is passed on at once: from a pipe or a terminal
                // that is what has come so far, not a whole buffer's worth.
                while (in.peek() != std::char_traits<char>::eof()) {
                    checkInterrupted();
                    const auto got = static_cast<std::size_t>(in.readsome(buffer.get(), kChunk));
                    if (std::fwrite(buffer.get(), 1, got, stdout) != got ||
                        (got < kChunk && std::fflush(stdout) != 0))
                        throw ToolError("cannot write the output", "");
                }
            } catch (const vfs::IOException& error) {
                throw ToolError(describe(error), operand);
            }
            return Success;
        });
        status = std::max(status, result);
    }
    std::fflush(stdout);
    return status;
}

// ---- touch, mkdir -------------------------------------------------------------------------------

int runTouch(Tool& tool, const std::vector<std::string>& operands)
{
    int status = Success;
    const auto now = boost::posix_time::microsec_clock::universal_time();
    for (const std::string& operand : operands) {
        const int result = runReported("touch", [&] {
            const vfs::AbsoluteIRI location = tool.locate(operand);
            switch (tool.kindAt(location)) {
            case provider::ExistenceType::NotFound: tool.file(location).createFile(); break;
            case provider::ExistenceType::File: tool.file(location).setLastModified(now); break;
            case provider::ExistenceType::Folder: tool.folder(location).setLastModified(now); break;
            }
            return Success;
        });
        status = std::max(status, result);
    }
    return status;
}

int runMkdir(Tool& tool, const std::vector<std::string>& operands, bool parents)
{
    int status = Success;
    for (const std::string& operand : operands) {
        const int result = runReported("mkdir", [&] {
            const vfs::Folder folder = tool.folder(tool.locate(operand));
            if (parents)
                folder.createFolderRecursive();
            else
                folder.createFolder();
            return Success;
        });
        status = std::max(status, result);
    }
    return status;
}

} // namespace

void addItemCommands(const CommandSet& commands)
{
    auto statLocation = std::make_shared<std::string>();
    auto statJson = std::make_shared<bool>(false);
    CLI::App* stat = commands.app.add_subcommand("stat", "Show a file's or folder's attributes");
    stat->add_option("LOCATION", *statLocation, "An IRI or a local path")->required();
    stat->add_flag("--json", *statJson, "One JSON object");
    stat->callback(
        [=] { commands.status = runReported("stat", [&] { return runStat(commands.tool, *statLocation, *statJson); }); });

    auto catLocations = std::make_shared<std::vector<std::string>>();
    CLI::App* cat = commands.app.add_subcommand("cat", "Write files' content to standard output");
    cat->add_option("LOCATION", *catLocations, "IRIs or local paths")->required();
    cat->callback([=] { commands.status = runCat(commands.tool, *catLocations); });

    auto touchLocations = std::make_shared<std::vector<std::string>>();
    CLI::App* touch = commands.app.add_subcommand("touch", "Create empty files, or set their modification time to now");
    touch->add_option("LOCATION", *touchLocations, "IRIs or local paths")->required();
    touch->callback([=] { commands.status = runTouch(commands.tool, *touchLocations); });

    auto mkdirLocations = std::make_shared<std::vector<std::string>>();
    auto mkdirParents = std::make_shared<bool>(false);
    CLI::App* mkdir = commands.app.add_subcommand("mkdir", "Create folders");
    mkdir->add_flag("-p", *mkdirParents, "Create missing ancestors too; an existing folder is no error");
    mkdir->add_option("LOCATION", *mkdirLocations, "IRIs or local paths")->required();
    mkdir->callback([=] { commands.status = runMkdir(commands.tool, *mkdirLocations, *mkdirParents); });
}

} // namespace vfs_tool
