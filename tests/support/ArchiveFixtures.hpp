#pragma once

// Archives made at run time with libarchive's writers, for the archive providers' tests: entries in
// the order given (duplicates and hostile names included), as zip (stored or deflated, optionally
// encrypted) or tar (plain or compressed).

#include <archive.h>
#include <archive_entry.h>

#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vfs_test {

struct ArchiveItem {
    std::string name;
    std::optional<std::string> content; // nullopt: a folder
};

struct ArchiveRecipe {
    enum class Kind { Zip, Tar } kind = Kind::Zip;
    // zip: "store" or "deflate"; tar: "", "gzip", "xz", "zstd" or "bzip2".
    std::string compression = "deflate";
    std::string passphrase; // zip only: traditional encryption when set
};

inline std::string makeArchive(const std::vector<ArchiveItem>& items, const ArchiveRecipe& recipe = {})
{
    std::string bytes;
    archive* writer = archive_write_new();
    const auto check = [&](int status) {
        if (status < ARCHIVE_WARN) {
            const std::string why = archive_error_string(writer) ? archive_error_string(writer) : "?";
            archive_write_free(writer);
            throw std::runtime_error("making a test archive: " + why);
        }
    };
    if (recipe.kind == ArchiveRecipe::Kind::Zip) {
        check(archive_write_set_format_zip(writer));
        check(archive_write_set_format_option(writer, "zip", "compression", recipe.compression.c_str()));
        if (!recipe.passphrase.empty()) {
            check(archive_write_set_format_option(writer, "zip", "encryption", "zipcrypt"));
            check(archive_write_set_passphrase(writer, recipe.passphrase.c_str()));
        }
    } else {
        check(archive_write_set_format_pax_restricted(writer));
        if (!recipe.compression.empty())
            check(archive_write_add_filter_by_name(writer, recipe.compression.c_str()));
        check(archive_write_set_bytes_per_block(writer, 512));
    }
    check(archive_write_set_bytes_in_last_block(writer, 1));
    check(archive_write_open2(
        writer, &bytes, nullptr,
        [](archive*, void* out, const void* data, size_t size) -> la_ssize_t {
            static_cast<std::string*>(out)->append(static_cast<const char*>(data), size);
            return static_cast<la_ssize_t>(size);
        },
        nullptr, nullptr));
    for (const ArchiveItem& item : items) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, item.name.c_str());
        archive_entry_set_filetype(entry, item.content ? AE_IFREG : AE_IFDIR);
        archive_entry_set_perm(entry, item.content ? 0644 : 0755);
        archive_entry_set_size(entry, item.content ? static_cast<la_int64_t>(item.content->size()) : 0);
        archive_entry_set_mtime(entry, std::time(nullptr), 0);
        const int status = archive_write_header(writer, entry);
        archive_entry_free(entry);
        check(status);
        if (item.content && !item.content->empty())
            if (archive_write_data(writer, item.content->data(), item.content->size()) < 0)
                check(ARCHIVE_FATAL);
    }
    check(archive_write_close(writer));
    archive_write_free(writer);
    return bytes;
}

} // namespace vfs_test
