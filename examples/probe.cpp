// vfs-probe LOCATION...: for each IRI or local path, prints its normalised IRI, its URI form and what
// exists there. A first program over the library: three lines to a storage system, one per question.

#include <foundation/storage/vfs.hpp>

#include <filesystem>
#include <iostream>

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::cerr << "usage: vfs-probe LOCATION...   (an IRI such as file:///tmp or mem://scratch/, or a local path)\n";
        return 2;
    }
    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};

    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        try {
            const auto text = fl::i18n::utf8_to_ustring(argv[i]);
            const vfs::AbsoluteIRI location =
                vfs::hasIRIPrefix(text) ? vfs::AbsoluteIRI(text) : vfs::toAbsoluteIRI(u"", argv[i]);
            const auto answer = vfs::exists(location, ref);
            const auto extended = vfs::existsExtended(location, ref);
            std::cout << location << "\n"
                      << "  uri:      " << fl::i18n::ustring_to_utf8(location.toAsciiString()) << "\n"
                      << "  exists:   " << answer << "\n"
                      << "  extended: " << extended << std::endl;
        } catch (const std::exception& error) {
            std::cout << argv[i] << "\n  error:    " << error.what() << std::endl;
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}
