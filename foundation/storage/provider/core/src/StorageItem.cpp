#include <foundation/storage/provider/StorageItem.hpp>

#include <foundation/storage/provider/ExtendedAttributes.hpp>

#include <stdexcept>

namespace foundation::storage::provider {

namespace {

[[noreturn]] void refuseChild(const StorageIRI& folder, const ustring& name, const char16_t* why)
{
    throwProviderError(ErrorCode::InvalidLocation, folder, {ExceptionContext(u"child-name", why)},
                       u"refused child name \"" + name + u"\": " + why);
}

} // namespace

StorageIRI childLocation(const StorageIRI& folder, ustring name)
{
    if (std::optional<StorageIRI> child = StorageIRI::plainChild(folder, name))
        return std::move(*child);
    if (name.empty())
        refuseChild(folder, name, u"empty name");
    if (name.front() == u'/')
        refuseChild(folder, name, u"absolute path");
    if (name.find(u'\0') != ustring::npos)
        refuseChild(folder, name, u"NUL character");
    // Walk the segments: the depth below the folder must never go negative.
    long depth = 0;
    std::size_t begin = 0;
    while (begin <= name.size()) {
        std::size_t end = name.find(u'/', begin);
        if (end == ustring::npos)
            end = name.size();
        const std::u16string_view segment(name.data() + begin, end - begin);
        if (segment == u"..") {
            if (--depth < 0)
                refuseChild(folder, name, u"climbs above the folder");
        } else if (!segment.empty() && segment != u".") {
            ++depth;
        }
        begin = end + 1;
    }
    if (depth == 0)
        refuseChild(folder, name, u"names the folder itself");
    return StorageIRI(folder, std::move(name));
}

IFolderEntryIterator::~IFolderEntryIterator() = default;
extensions::IInvalidatable::~IInvalidatable() = default;
extensions::IFlushableFilesystem::~IFlushableFilesystem() = default;
extensions::IFolderModeKeeping::~IFolderModeKeeping() = default;
extensions::ILinkKeeping::~ILinkKeeping() = default;
extensions::IChangeBatching::~IChangeBatching() = default;

StorageItem::StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location)
    : m_provider(std::move(provider)), m_location(std::move(location))
{
    if (!m_provider)
        throw std::invalid_argument("StorageItem needs a provider");
}

StorageItem::StorageItem(const StorageItem& parent, ustring name)
    : m_provider(parent.m_provider), m_location(childLocation(parent.m_location, std::move(name)))
{
}

ExtendedAttributes StorageItem::getExtendedAttributes() const
{
    return m_provider->getExtendedAttributes(m_location);
}

StorageItem StorageItem::getParent() const { return StorageItem(m_provider, m_location.getParent()); }

} // namespace foundation::storage::provider
