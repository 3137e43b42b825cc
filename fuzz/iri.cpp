// Every text either parses or is refused with the provider's InvalidLocation and a "parse" context;
// whatever parses prints to a text that parses back to the same IRI, in both its IRI and its URI
// forms; a parent and a name rebuild the IRI; and a child of a plain name resolves to the IRI that
// parsing the printed child gives.

#include "FuzzInput.hpp"

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <optional>

using foundation::storage::provider::StorageIRI;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::u16string text = vfs_fuzz::unitsOf(data, size);
    std::optional<StorageIRI> iri;
    try {
        iri.emplace(text);
    } catch (const foundation::storage::provider::Exception& refused) {
        if (refused.getErrorCode() != foundation::storage::provider::ErrorCode::InvalidLocation)
            vfs_fuzz::violated("a refusal is InvalidLocation");
        const auto contexts = refused.getAllExceptionContexts();
        if (contexts.empty() || contexts.front().getExceptionContextKey() != u"parse")
            vfs_fuzz::violated("a refusal says what failed to parse");
        return 0;
    }
    const StorageIRI reparsed(iri->toString());
    if (!(reparsed == *iri) || reparsed.toString() != iri->toString() || reparsed.hashValue() != iri->hashValue())
        vfs_fuzz::violated("parse(print(x)) == x");
    if (!(StorageIRI(iri->toAsciiString()) == *iri))
        vfs_fuzz::violated("parse(ascii(x)) == x");
    if (iri->hasParent()) {
        const StorageIRI parent = iri->getParent();
        if (!(StorageIRI(parent, iri->getName()) == *iri) || !parent.isAncestorOf(*iri)
            || iri->makePathRelativeTo(parent) != iri->getName())
            vfs_fuzz::violated("the parent and the name rebuild the IRI");
    }
    if (iri->hasPath()) {
        const StorageIRI child(*iri, u"n%! #");
        if (!(StorageIRI(child.toString()) == child) || child.getParent() != *iri || child.getName() != u"n%! #"
            || !(StorageIRI(*iri, child.makePathRelativeTo(*iri)) == child))
            vfs_fuzz::violated("a child prints to what parses back to it");
        if (!iri->isAncestorOf(child))
            vfs_fuzz::violated("an IRI is an ancestor of its child");
    }
    return 0;
}
