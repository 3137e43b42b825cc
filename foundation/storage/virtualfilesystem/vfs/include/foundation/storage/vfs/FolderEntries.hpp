#pragma once

#include <foundation/storage/provider/Attributes.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/Folder.hpp>

#include <boost/variant/variant.hpp>

#include <memory>

namespace foundation::storage::vfs {

// Entries are what listings yield: one per child of a listed folder. Each is a handle to shared
// state, so copies share what has been fetched. They know their name at once; the File or Folder
// handle and its attributes are made on first demand, once, and then kept (attributes that came
// with the listing are kept as delivered and never asked for again, even if the child changes).
//
// getName() never fails. The other getters report what the handle or the provider reports (as
// Exception) and leave the entry as it was, so a later call tries again. getFile/getFolder and
// getAttributes may be called from any number of threads at once, on one entry or on copies.

class VFS_EXPORT FileEntry {
public:
    // Takes the name from the file now; the handle is the given one.
    explicit FileEntry(File file);
    // The child `name` of `parent`; no provider call until a getter needs one.
    FileEntry(Folder parent, ustring name);
    // As above, with the child's attributes already known.
    FileEntry(Folder parent, ustring name, provider::FileAttributes attributes);

    const ustring& getName() const noexcept;
    // getName() in UTF-8, for printing (what is not Unicode becomes U+FFFD).
    std::string getNameUtf8() const { return fl::i18n::ustring_to_utf8_lossy(getName()); }
    const File& getFile() const;
    const provider::FileAttributes& getAttributes() const;
    // The attributes when the listing delivered them or they have been fetched; nullptr otherwise.
    // Never reaches the storage.
    const provider::FileAttributes* getKnownAttributes() const noexcept;

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

class VFS_EXPORT FolderEntry {
public:
    explicit FolderEntry(Folder folder);
    FolderEntry(Folder parent, ustring name);
    FolderEntry(Folder parent, ustring name, provider::FolderAttributes attributes);

    const ustring& getName() const noexcept;
    // getName() in UTF-8, for printing (what is not Unicode becomes U+FFFD).
    std::string getNameUtf8() const { return fl::i18n::ustring_to_utf8_lossy(getName()); }
    const Folder& getFolder() const;
    const provider::FolderAttributes& getAttributes() const;

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

// A child of a listed folder whose kind is not known: a parent and a name (a relative path "a/b" in
// recursive listings). Making one never reaches the storage.
class VFS_EXPORT ListEntry {
public:
    ListEntry(Folder parent, ustring name);

    // The name as the listing gave it.
    const ustring& getName() const noexcept;
    // getName() in UTF-8, for printing (what is not Unicode becomes U+FFFD).
    std::string getNameUtf8() const { return fl::i18n::ustring_to_utf8_lossy(getName()); }
    // The last segment of the name: "b" for "a/b", "" for "a/", and "/" for "/".
    ustring getFilename() const;
    // The child's location below the parent's.
    AbsoluteIRI getLocation() const;
    // Asks the storage afresh on every call: a Folder when a folder is there, otherwise a File (so a
    // child that has vanished since the listing comes back as a File). Each call binds a new
    // provider through the parent's storage system.
    boost::variant<File, Folder> getFileOrFolder() const;

    // By location.
    bool operator==(const ListEntry& other) const;
    bool operator!=(const ListEntry& other) const { return !(*this == other); }
    bool operator<(const ListEntry& other) const;

private:
    struct Impl;
    std::shared_ptr<const Impl> m_impl;
};

} // namespace foundation::storage::vfs
