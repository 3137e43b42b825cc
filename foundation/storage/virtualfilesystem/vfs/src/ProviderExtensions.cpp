#include <foundation/storage/vfs/ProviderExtensions.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/property_tree/ptree.hpp>
#include <boost/throw_exception.hpp>

namespace foundation::storage::vfs {

namespace {

// Runs `use` on the provider serving `location` when that provider implements `Capability`.
template <class Capability, class Use>
void withCapability(const AbsoluteIRI& location, const StorageSystemReference& system, Use use)
{
    const auto& iri = detail::IRIAccess::storageIRI(location);
    const auto served = detail::bindProvider(system, iri);
    if (auto* capable = dynamic_cast<Capability*>(served.get()))
        detail::translated([&] { use(*capable, iri); });
}

// Runs a call on the folder's provider that names no location (configure, shutdown). A provider
// failure it raises concerns the folder's provider as a whole, so it is reported at the folder's
// location when the provider could give none.
template <class Call>
void onWholeProvider(const Folder& folder, Call call)
{
    const auto& item = detail::HandleAccess::liveItem(folder);
    try {
        call(item);
    } catch (const provider::Exception& error) {
        if (!error.getStorageIRI().empty())
            detail::translateProviderException();
        try {
            provider::Exception located(error.getErrorCode(), item.getLocation(), error.getMessage());
            located.withExceptionContexts(error.getAllExceptionContexts());
            boost::throw_exception(located);
        } catch (...) {
            detail::translateProviderException();
        }
    } catch (...) {
        detail::translateProviderException();
    }
}

} // namespace

void configureProvider(Folder& folder, std::map<std::string, std::string> settings)
{
    onWholeProvider(folder, [&](const provider::StorageItem& item) {
        boost::property_tree::ptree tree;
        for (const auto& [key, value] : settings)
            tree.put(boost::property_tree::ptree::path_type(key, '.'), value);
        item.configure(tree);
    });
}

void shutdownProvider(Folder& folder)
{
    onWholeProvider(folder, [](const provider::StorageItem& item) { item.shutdownProvider(); });
}

provider::ProviderStorageInfo getStorageInfo(const Folder& folder)
{
    return detail::translated([&] { return detail::HandleAccess::liveItem(folder).getProviderStorageInfo(); });
}

void invalidateFolder(const Folder& folder)
{
    withCapability<provider::extensions::IInvalidatable>(
        folder.getLocation(), folder.getStorageSystem(),
        [](provider::extensions::IInvalidatable& capable, const provider::StorageIRI& iri) {
            capable.invalidate(iri);
        });
}

namespace extensions {

void flushFilesystem(const AbsoluteIRI& location, const StorageSystemReference& system)
{
    withCapability<provider::extensions::IFlushableFilesystem>(
        location, system,
        [](provider::extensions::IFlushableFilesystem& capable, const provider::StorageIRI&) {
            capable.flushFilesystem();
        });
}

} // namespace extensions

} // namespace foundation::storage::vfs
