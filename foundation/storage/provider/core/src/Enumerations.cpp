#include <foundation/storage/provider/Enumerations.hpp>

#include <iterator>

namespace foundation::storage::provider {

namespace {

template <class E, std::size_t N>
const char* lookup(E value, const char* const (&names)[N], const char* unhandled) noexcept
{
    const auto index = static_cast<std::int64_t>(value);
    return index >= 0 && index < static_cast<std::int64_t>(N) ? names[index] : unhandled;
}

} // namespace

const char* toString(ErrorCode value) noexcept
{
    static const char* const names[] = {
        "ErrorCode::FolderNotEmpty",  "ErrorCode::InvalidLocation",       "ErrorCode::PermissionDenied",
        "ErrorCode::ResourceAlreadyExists", "ErrorCode::ResourceNotFound", "ErrorCode::FileTooLarge",
        "ErrorCode::ResourceInUse",   "ErrorCode::ReadOnlyProvider",      "ErrorCode::NoSpaceLeft",
        "ErrorCode::IOError",         "ErrorCode::InternalError",         "ErrorCode::UnsupportedOperation",
        "ErrorCode::Unknown"};
    return lookup(value, names, "Unhandled ErrorCode");
}

const char* toString(ExistenceType value) noexcept
{
    static const char* const names[] = {"ExistenceType::File", "ExistenceType::Folder", "ExistenceType::NotFound"};
    return lookup(value, names, "Unhandled ExistenceType");
}

const char* toString(ExistenceTypeExtended value) noexcept
{
    static const char* const names[] = {
        "ExistenceTypeExtended::File",       "ExistenceTypeExtended::Folder",
        "ExistenceTypeExtended::LinkToFile", "ExistenceTypeExtended::LinkToFolder",
        "ExistenceTypeExtended::BrokenLink", "ExistenceTypeExtended::Special",
        "ExistenceTypeExtended::NotFound"};
    return lookup(value, names, "Unhandled ExistenceTypeExtended");
}

const char* toString(ExtendedFeature value) noexcept
{
    static const char* const names[] = {
        "ExtendedFeature::RecursiveRemoval", "ExtendedFeature::RecursiveListing",
        "ExtendedFeature::FlatWildcardListing", "ExtendedFeature::RecursiveWatching",
        "ExtendedFeature::RecursiveWildcardListing"};
    return lookup(value, names, "Unhandled ExtendedFeature");
}

const char* toString(EntryType value) noexcept
{
    static const char* const names[] = {"EntryType::File", "EntryType::Folder"};
    return lookup(value, names, "Unhandled EntryType");
}

const char* toString(ReplacementPolicy value) noexcept
{
    static const char* const names[] = {
        "ReplacementPolicy::FailIfExists", "ReplacementPolicy::Replace", "ReplacementPolicy::MergeFolders",
        "ReplacementPolicy::MergeCollectingFailures", "ReplacementPolicy::ReplaceIfNewer"};
    return lookup(value, names, "Unhandled ReplacementPolicy");
}

const char* toString(TransactionStatus value) noexcept
{
    static const char* const names[] = {"TransactionStatus::Completed", "TransactionStatus::NothingDone"};
    return lookup(value, names, "Unhandled TransactionStatus");
}

} // namespace foundation::storage::provider
