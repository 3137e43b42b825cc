// hasIRIPrefix never throws, and whatever it calls an IRI prefix starts with a scheme of at least
// two characters (letter, then letters, digits, '+', '-', '.') and a ':'; a text that parses as an
// absolute IRI with such a scheme followed by '/' is called one. (A nested IRI whose inner scheme
// has one letter, "zip:c:/x!/y", is deliberately not: it reads as a drive-letter path.)

#include "FuzzInput.hpp"

#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/Exception.hpp>

namespace {

bool isAsciiLetter(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }

bool startsWithScheme(const std::u16string& text, bool slashAfter = false)
{
    const std::size_t colon = text.find(u':');
    if (colon == std::u16string::npos || colon < 2 || !isAsciiLetter(text[0]))
        return false;
    for (std::size_t i = 1; i < colon; ++i) {
        const char16_t c = text[i];
        if (!isAsciiLetter(c) && !(c >= u'0' && c <= u'9') && c != u'+' && c != u'-' && c != u'.')
            return false;
    }
    return !slashAfter || (colon + 1 < text.size() && text[colon + 1] == u'/');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    namespace vfs = foundation::storage::vfs;
    const std::u16string text = vfs_fuzz::unitsOf(data, size);
    const bool prefixed = vfs::hasIRIPrefix(text);
    if (prefixed && !startsWithScheme(text))
        vfs_fuzz::violated("an IRI prefix is a scheme of two or more characters and ':'");
    try {
        const vfs::AbsoluteIRI iri(text);
        if (startsWithScheme(text, true) && !prefixed)
            vfs_fuzz::violated("a parsable IRI with a long scheme has an IRI prefix");
    } catch (const vfs::Exception&) {
    } catch (const vfs::InvalidIRIException&) {
    }
    return 0;
}
