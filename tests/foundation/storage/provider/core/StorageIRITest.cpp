#include <Prelude.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

namespace {

using Code = provider::ErrorCode;

using foundation::storage::provider::Exception;
using foundation::storage::provider::childLocation;

std::string utf8(std::u16string_view text) { return fl::i18n::ustring_to_utf8_lossy(text); }
std::string utf8(const StorageIRI& iri) { return utf8(iri.toString()); }

bool isAscii(std::u16string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char16_t c) { return c < 0x80; });
}

// The invariant every accepted IRI must keep: printing and re-parsing (in both forms) gives the same
// value and the same text.
void expectRoundTrip(const StorageIRI& iri)
{
    SCOPED_TRACE(utf8(iri));
    const StorageIRI again(iri.toString());
    EXPECT_TRUE(again == iri);
    EXPECT_EQ(again.toString(), iri.toString());
    EXPECT_EQ(again.hashValue(), iri.hashValue());
    EXPECT_EQ(again.getPath(), iri.getPath());
    EXPECT_EQ(again.hasPath(), iri.hasPath());
    EXPECT_EQ(again.getAuthority(), iri.getAuthority());
    EXPECT_EQ(again.hasInnerIRI(), iri.hasInnerIRI());

    const ustring& ascii = iri.toAsciiString();
    EXPECT_TRUE(isAscii(ascii)) << utf8(ascii);
    const StorageIRI fromAscii(ascii);
    EXPECT_TRUE(fromAscii == iri) << utf8(ascii);
    EXPECT_EQ(fromAscii.toString(), iri.toString());
    EXPECT_EQ(fromAscii.toAsciiString(), ascii);
}

// Runs `action`, which must throw provider::Exception(InvalidLocation); returns the exception.
template <class Action>
std::optional<Exception> invalidLocation(Action&& action)
{
    return vfs_test::inspectThrown<Exception>(std::forward<Action>(action), [](const Exception& error) {
        EXPECT_EQ(error.getErrorCode(), Code::InvalidLocation);
        return std::optional<Exception>(error);
    });
}

// ---- parsing and printing ----------------------------------------------------------------------

struct ParseCase {
    std::u16string_view input;
    std::u16string_view text;   // expected normalised text
    std::u16string_view scheme;
    std::u16string_view path;   // decoded; empty when there is none
    bool hasPath;
};

std::ostream& operator<<(std::ostream& out, const ParseCase& c) { return out << utf8(c.input); }

class StorageIRIParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(StorageIRIParse, NormalisesAndRoundTrips)
{
    const ParseCase& c = GetParam();
    const StorageIRI iri{ustring(c.input)};
    EXPECT_EQ(iri.toString(), c.text);
    EXPECT_EQ(iri.getScheme(), c.scheme);
    EXPECT_EQ(iri.hasPath(), c.hasPath);
    EXPECT_EQ(iri.getPath(), c.path);
    EXPECT_EQ(iri.getResolvedPath(), c.path);
    EXPECT_FALSE(iri.empty());
    expectRoundTrip(iri);
}

constexpr ParseCase parseCases[] = {
    {u"file:///tmp/a.txt", u"file:///tmp/a.txt", u"file", u"/tmp/a.txt", true},
    {u"FILE://LocalHost/Tmp", u"file:///Tmp", u"file", u"/Tmp", true},
    {u"file://localhost", u"file://", u"file", u"", false},
    {u"file:/abs/x", u"file:///abs/x", u"file", u"/abs/x", true},
    {u"file://server/share/x", u"file://server/share/x", u"file", u"/share/x", true},
    {u"mem://vol/a/b", u"mem://vol/a/b", u"mem", u"/a/b", true},
    {u"mem://vol", u"mem://vol", u"mem", u"", false},
    {u"x:/", u"x:/", u"x", u"/", true},
    {u"x:foo", u"x:foo", u"x", u"", false},
    {u"x:a!b%21/c", u"x:a%21b%21/c", u"x", u"", false},
    {u"s+v-1.2://h/p", u"s+v-1.2://h/p", u"s+v-1.2", u"/p", true},
    // Slashes and dot segments.
    {u"file:///a//b///c/", u"file:///a/b/c", u"file", u"/a/b/c", true},
    {u"file:///a/./b/../c", u"file:///a/c", u"file", u"/a/c", true},
    {u"file:///../../x", u"file:///x", u"file", u"/x", true},
    {u"file:///a/%2E%2E/b", u"file:///b", u"file", u"/b", true},
    {u"mem://v/a/%2e%2E/.%2E/%2E./b/%2E/c", u"mem://v/b/c", u"mem", u"/b/c", true},
    // Escapes are decoded and re-encoded only where needed, in upper case.
    {u"file:///%41%62", u"file:///Ab", u"file", u"/Ab", true},
    {u"file:///caf%C3%A9", u"file:///caf\u00E9", u"file", u"/caf\u00E9", true},
    {u"file:///%F0%9F%98%80", u"file:///\U0001F600", u"file", u"/\U0001F600", true},
    {u"file:///a%20b%25c%3fd%23e%21f", u"file:///a%20b%25c%3Fd%23e%21f", u"file", u"/a b%c?d#e!f", true},
    {u"file:///\"<>\\^`{|}[]", u"file:///%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D", u"file", u"/\"<>\\^`{|}[]", true},
    {u"file:///%00x%01%1F", u"file:///%00x%01%1F", u"file", std::u16string_view(u"/\0x\x01\x1F", 5), true},
    {u"file:///%7F%C2%80%C2%9F\u00A0", u"file:///%7F%C2%80%C2%9F\u00A0", u"file", u"/\x7F\u0080\u009F\u00A0", true},
    // Escapes that are no UTF-8 stand for the bytes of a name that is not UTF-8 (U+DC00 + byte),
    // printed back as the same escapes; raw units of that kind that spell UTF-8 become the character.
    {u"file:///%C3", u"file:///%C3", u"file", u"/\xDCC3", true},
    {u"file:///%C0%AF%80x%ff", u"file:///%C0%AF%80x%FF", u"file", u"/\xDCC0\xDCAF\xDC80x\xDCFF", true},
    {u"file:///%ED%A0%80", u"file:///%ED%A0%80", u"file", u"/\xDCED\xDCA0\xDC80", true},
    {u"file:///caf%C3\xDCA9", u"file:///caf\u00E9", u"file", u"/caf\u00E9", true},
    // Private use, non-characters and bidi controls are no IRI characters: they stay escaped.
    {u"file:///\uE000%EF%B7%90\u200E\U0010FFFD", u"file:///%EE%80%80%EF%B7%90%E2%80%8E%F4%8F%BF%BD", u"file",
     u"/\uE000\uFDD0\u200E\U0010FFFD", true},
    {u"file:///a~b-c_d.e;f=g,h$i&j'k(l)m*n+o:p@q", u"file:///a~b-c_d.e;f=g,h$i&j'k(l)m*n+o:p@q", u"file",
     u"/a~b-c_d.e;f=g,h$i&j'k(l)m*n+o:p@q", true},
    // A "!" in a hierarchical part is literal.
    {u"file:///a!/b", u"file:///a%21/b", u"file", u"/a!/b", true},
    // Authorities.
    {u"x://[::1]:80/p", u"x://[::1]:80/p", u"x", u"/p", true},
    {u"x://us%20er@h%C3%A9st/p", u"x://us%20er@h\u00E9st/p", u"x", u"/p", true},
    // Nested IRIs.
    {u"zip:file:///tmp/a.zip!/docs/x.txt", u"zip:file:///tmp/a.zip!/docs/x.txt", u"zip", u"/docs/x.txt", true},
    {u"zip:file:///a.zip!//..//", u"zip:file:///a.zip!/", u"zip", u"/", true},
    {u"zip:file:///a!b.zip!/c", u"zip:file:///a%21b.zip!/c", u"zip", u"/c", true},
    {u"tar:gz:mem://v/a%20b.tgz!/in.tar!/d/%C3%A9", u"tar:gz:mem://v/a%20b.tgz!/in.tar!/d/\u00E9", u"tar",
     u"/d/\u00E9", true},
};

INSTANTIATE_TEST_SUITE_P(Table, StorageIRIParse, ::testing::ValuesIn(parseCases));

TEST(StorageIRI, NestedLevelsExposeTheirContainers)
{
    const StorageIRI iri(u"a:B:file:///x%21!/y!/z");
    ASSERT_TRUE(iri.hasInnerIRI());
    const StorageIRI middle = iri.getInnerIRI();
    EXPECT_EQ(middle.toString(), u"b:file:///x%21!/y");
    EXPECT_EQ(middle.getScheme(), u"b");
    EXPECT_EQ(middle.getPath(), u"/y");
    ASSERT_TRUE(middle.hasInnerIRI());
    const StorageIRI innermost = middle.getInnerIRI();
    EXPECT_EQ(innermost.toString(), u"file:///x%21");
    EXPECT_EQ(innermost.getPath(), u"/x!");
    EXPECT_FALSE(innermost.hasInnerIRI());
    EXPECT_TRUE(innermost.getInnerIRI().empty());
    EXPECT_FALSE(iri.hasAuthority());
    EXPECT_TRUE(iri.getAuthority().empty());
}

TEST(StorageIRI, AuthorityAndFileNormalisation)
{
    EXPECT_TRUE(StorageIRI(u"file:/a").hasAuthority());
    EXPECT_EQ(StorageIRI(u"mem://v%C3%A9/").getAuthority(), u"v\u00E9");
    EXPECT_EQ(StorageIRI(u"mem://vol%2Fx/").getAuthority(), u"vol/x");
    EXPECT_TRUE(StorageIRI(u"mem://vol/").hasAuthority());
    EXPECT_FALSE(StorageIRI(u"x:/a").hasAuthority());
    // localhost is only special for file IRIs.
    EXPECT_EQ(StorageIRI(u"mem://localhost/a").getAuthority(), u"localhost");
}

// ---- rejected text -----------------------------------------------------------------------------

struct RejectCase {
    std::u16string_view input;
    std::u16string_view reason; // part of the "parse" context's detail
};

std::ostream& operator<<(std::ostream& out, const RejectCase& c) { return out << utf8(c.input); }

class StorageIRIReject : public ::testing::TestWithParam<RejectCase> {};

TEST_P(StorageIRIReject, ThrowsInvalidLocationWithTheReason)
{
    const RejectCase& c = GetParam();
    const auto error = invalidLocation([&] { StorageIRI{ustring(c.input)}; });
    ASSERT_TRUE(error);
    ASSERT_EQ(error->getAllExceptionContexts().size(), 1u);
    const auto& context = error->getAllExceptionContexts().front();
    EXPECT_EQ(context.getExceptionContextKey(), u"parse");
    EXPECT_THAT(utf8(context.getDetail()), ::testing::HasSubstr(utf8(c.reason)));
    EXPECT_THAT(utf8(error->getMessage()), ::testing::HasSubstr(utf8(c.input)));
    EXPECT_TRUE(error->getStorageIRI().empty());
    EXPECT_NE(std::string(error->what()), "");
}

constexpr RejectCase rejectCases[] = {
    {u"", u"empty text"},
    {u"noscheme", u"no scheme"},
    {u"1x:/a", u"invalid character in scheme at offset 0"},
    {u"a b:/x", u"invalid character in scheme at offset 1"},
    {u"\u00E9:/x", u"invalid character in scheme"},
    {u"%66ile:///x", u"invalid character in scheme"},
    {u"file:///%", u"'%' not followed by two hex digits at offset 8"},
    {u"file:///a%%41", u"'%' not followed by two hex digits at offset 9"},
    {u"mem://v%/a", u"'%' not followed by two hex digits at offset 7"},
    {u"zip:nonsense!/x", u"malformed inner IRI: no scheme"},
    {u"zip:file:///%ZZ!/x", u"malformed inner IRI: '%' not followed by two hex digits at offset 12"},
    {u"file:///a%2F..%2Fb", u"an escaped '/' at offset 9 cannot be part of a name"},
    {u"zip:file:///a.zip!/x%2fy", u"an escaped '/' at offset 20 cannot be part of a name"},
    {u"a:b:c!/d!/e", u"malformed inner IRI: malformed inner IRI: no scheme"},
    {u"zip:mem://vol!/x", u"has no path"},
    {u"file:///a\xD800", u"lone surrogate"},
    {u"file:///\xDC00" u"b", u"lone surrogate"},
    {u"mem://v\xDBFF" u"/a", u"lone surrogate"},
    {u"\xD83D" u":/a", u"lone surrogate"},
    {u"zip:file:///\xDFFF" u"!/x", u"lone surrogate"},
};

INSTANTIATE_TEST_SUITE_P(Table, StorageIRIReject, ::testing::ValuesIn(rejectCases));

// ---- identity ----------------------------------------------------------------------------------

TEST(StorageIRI, EqualityHashAndOrderFollowTheNormalisedText)
{
    const std::vector<std::vector<std::u16string_view>> groups = {
        {u"file:///a/b", u"FILE:///a/b", u"File://localhost/a/b", u"file:/a/./b/", u"file:///%61/b", u"file:////a//b//"},
        {u"file:///A/b"},
        {u"mem://v/a/b", u"MEM://v/a/x/../b"},
        {u"mem://V/a/b"},
        {u"zip:file:///a.zip!/b", u"Zip:file:///a.zip!/./b", u"zip:FILE:///a.zip!/b"},
        {u"zip:file:///a.zip!/b/"},
        {u"file:///caf\u00E9", u"file:///caf%C3%A9"},
        {u"file:///cafe\u0301"}, // canonically equivalent, yet another code unit sequence
        {u"x:foo"},
        {u"x://foo"},
    };
    std::vector<StorageIRI> firsts;
    std::unordered_set<StorageIRI> set;
    for (const auto& group : groups) {
        const StorageIRI first{ustring(group.front())};
        firsts.push_back(first);
        for (const auto text : group) {
            SCOPED_TRACE(utf8(text));
            const StorageIRI iri{ustring(text)};
            EXPECT_TRUE(iri == first);
            EXPECT_FALSE(iri != first);
            EXPECT_FALSE(iri < first || first < iri);
            EXPECT_EQ(iri.hashValue(), first.hashValue());
            EXPECT_EQ(hash_value(iri), first.hashValue());
            EXPECT_EQ(std::hash<StorageIRI>{}(iri), first.hashValue());
            set.insert(iri);
        }
    }
    EXPECT_EQ(set.size(), groups.size() - 1); // "zip:...!/b/" normalises to "zip:...!/b"
    EXPECT_TRUE(StorageIRI(u"zip:file:///a.zip!/b/") == StorageIRI(u"zip:file:///a.zip!/b"));

    for (std::size_t i = 0; i < firsts.size(); ++i) {
        for (std::size_t j = 0; j < firsts.size(); ++j) {
            const bool sameText = firsts[i].toString() == firsts[j].toString();
            EXPECT_EQ(firsts[i] == firsts[j], sameText);
            EXPECT_EQ(firsts[i] < firsts[j], firsts[i].toString() < firsts[j].toString());
            if (!sameText) {
                EXPECT_NE(firsts[i] < firsts[j], firsts[j] < firsts[i]);
            }
        }
    }
    // Code-unit order: a supplementary character (surrogates, 0xD8xx) sorts before U+E000..U+FFFF.
    EXPECT_TRUE(StorageIRI(u"x:/\U0001F600") < StorageIRI(u"x:/\uFF21"));
    EXPECT_TRUE(StorageIRI(u"x:/a") < StorageIRI(u"x:/b"));
    EXPECT_TRUE(StorageIRI(u"x:/a") < StorageIRI(u"x:/a/b"));
}

TEST(StorageIRI, EmptyValue)
{
    const StorageIRI none;
    EXPECT_TRUE(none.empty());
    EXPECT_FALSE(none.hasPath() || none.hasParent() || none.hasAuthority() || none.hasInnerIRI());
    EXPECT_TRUE(none.toString().empty() && none.toAsciiString().empty() && none.getName().empty());
    EXPECT_TRUE(none.getParent().empty());
    EXPECT_TRUE(none.toIRI() == foundation::network::IRI());
    EXPECT_TRUE(none == StorageIRI());
    EXPECT_TRUE(none < StorageIRI(u"x:"));
}

// Texts computed on first use (the ASCII form; the text of a child made from a plain name, and of
// its ancestors on the way) are computed once even when several threads are first at once.
TEST(StorageIRI, LazyTextsAreComputedOnceAcrossThreads)
{
    const StorageIRI iri(u"file:///\u65E5\u672C/a%20\U0001F600\u00E9");
    const StorageIRI grandchild(StorageIRI(StorageIRI(u"mem://vol/a b"), u"c!d"), u"\u00E9#");
    const StorageIRI parsed(u"mem://vol/a%20b/c%21d/\u00E9%23");
    std::vector<const ustring*> ascii(4), texts(4);
    std::vector<std::size_t> hashes(4);
    vfs_test::runOnThreads(4, [&](int i) {
        const auto slot = static_cast<std::size_t>(i);
        const StorageIRI copy = iri;
        ascii[slot] = &copy.toAsciiString();
        texts[slot] = &grandchild.toString();
        hashes[slot] = grandchild.hashValue();
        EXPECT_EQ(grandchild.getPath(), u"/a b/c!d/\u00E9#");
    });
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(ascii[i], ascii.front());
        EXPECT_EQ(texts[i], texts.front());
        EXPECT_EQ(hashes[i], parsed.hashValue());
    }
    EXPECT_EQ(*ascii.front(), u"file:///%E6%97%A5%E6%9C%AC/a%20%F0%9F%98%80%C3%A9");
    EXPECT_EQ(*texts.front(), parsed.toString());
    EXPECT_EQ(grandchild, parsed);
    EXPECT_EQ(grandchild.getParent(), StorageIRI(u"mem://vol/a%20b/c%21d"));
}

TEST(StorageIRI, ToIRICarriesBothForms)
{
    const StorageIRI iri(u"ZIP:file:///caf%C3%A9.zip!/a%20b");
    const auto general = iri.toIRI();
    EXPECT_EQ(general.getScheme(), u"zip");
    EXPECT_EQ(general.getHierarchicalPart(), u"file:///caf\u00E9.zip!/a%20b");
    EXPECT_EQ(general.toString(), u"zip:file:///caf\u00E9.zip!/a%20b");
    EXPECT_EQ(general.toAsciiString(), u"zip:file:///caf%C3%A9.zip!/a%20b");
    EXPECT_TRUE(general == StorageIRI(u"zip:file:///caf\u00E9.zip!/a%20b").toIRI());
    EXPECT_EQ(StorageIRI(u"mem://v").toIRI().getHierarchicalPart(), u"//v");
    EXPECT_EQ(StorageIRI(u"x:").toIRI().getHierarchicalPart(), u"");
}

// ---- resolution against a base -----------------------------------------------------------------

struct ResolveCase {
    std::u16string_view base;
    std::u16string_view relative;
    std::u16string_view text;
    std::u16string_view path;
};

std::ostream& operator<<(std::ostream& out, const ResolveCase& c)
{
    return out << utf8(c.base) << " + " << utf8(c.relative);
}

class StorageIRIResolve : public ::testing::TestWithParam<ResolveCase> {};

TEST_P(StorageIRIResolve, TakesTheRelativePathLiterally)
{
    const ResolveCase& c = GetParam();
    const StorageIRI base{ustring(c.base)};
    const StorageIRI resolved(base, ustring(c.relative));
    EXPECT_EQ(resolved.toString(), c.text);
    EXPECT_EQ(resolved.getPath(), c.path);
    EXPECT_EQ(resolved.getScheme(), base.getScheme());
    EXPECT_EQ(resolved.getAuthority(), base.getAuthority());
    EXPECT_EQ(resolved.hasAuthority(), base.hasAuthority());
    EXPECT_EQ(resolved.getInnerIRI().toString(), base.getInnerIRI().toString());
    EXPECT_EQ(base.toString(), StorageIRI(ustring(c.base)).toString());
    const auto slash = c.path.rfind(u'/');
    EXPECT_EQ(resolved.getName(), c.path.substr(slash + 1));
    expectRoundTrip(resolved);
}

const ResolveCase resolveCases[] = {
    {u"file:///a", u"b", u"file:///a/b", u"/a/b"},
    {u"file:///a", u"100%.txt", u"file:///a/100%25.txt", u"/a/100%.txt"},
    {u"file:///a", u"%41", u"file:///a/%2541", u"/a/%41"},
    {u"file:///a", u"b!/c", u"file:///a/b%21/c", u"/a/b!/c"},
    {u"file:///a", u"\u00E9\U0001F600", u"file:///a/\u00E9\U0001F600", u"/a/\u00E9\U0001F600"},
    {u"file:///a", std::u16string_view(u"x\0y", 3), u"file:///a/x%00y", std::u16string_view(u"/a/x\0y", 6)},
    {u"file:///a", u"x/y", u"file:///a/x/y", u"/a/x/y"},
    {u"file:///a/b", u"../c", u"file:///a/c", u"/a/c"},
    {u"file:///a", u"../../../x", u"file:///x", u"/x"},
    {u"file:///a", u"/z", u"file:///z", u"/z"},
    {u"file:///a", u"...", u"file:///a/...", u"/a/..."},
    {u"mem://vol/a", u"b!", u"mem://vol/a/b%21", u"/a/b!"},
    {u"zip:file:///t.zip!/d", u"e", u"zip:file:///t.zip!/d/e", u"/d/e"},
    {u"zip:file:///t.zip!/d", u"../../e", u"zip:file:///t.zip!/e", u"/e"},
};

INSTANTIATE_TEST_SUITE_P(Table, StorageIRIResolve, ::testing::ValuesIn(resolveCases));

TEST(StorageIRI, ResolutionRefusals)
{
    for (const auto& base : {StorageIRI(), StorageIRI(u"mem://vol"), StorageIRI(u"x:opaque")}) {
        SCOPED_TRACE(utf8(base));
        const auto error = invalidLocation([&] { StorageIRI(base, u"a"); });
        ASSERT_TRUE(error);
        EXPECT_TRUE(error->getStorageIRI() == base);
    }
    const auto error = invalidLocation([] { StorageIRI(StorageIRI(u"file:///a"), ustring(u"b") + char16_t(0xDC00)); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getAllExceptionContexts().front().getDetail(), u"lone surrogate");
}

TEST(StorageIRI, ChildNamesAreCheckedWhereverTheTellingUnitStands)
{
    // Child names are scanned several units at a time: the unit that matters goes to every offset of
    // names shorter than, as long as, and longer than one step.
    const StorageIRI base(u"file:///base");
    for (const std::size_t length : {1u, 3u, 4u, 5u, 8u, 11u}) {
        for (std::size_t at = 0; at < length; ++at) {
            SCOPED_TRACE(std::to_string(length) + " units, at " + std::to_string(at));
            ustring name(length, u'n');
            EXPECT_EQ(StorageIRI(base, name).getName(), name);
            name[at] = u'/';
            if (at > 0) { // a leading slash makes the name absolute
                const ustring parsed = StorageIRI(u"file:///base/" + name).getName();
                EXPECT_EQ(StorageIRI(base, name).getName(), parsed);
                EXPECT_EQ(childLocation(base, name).getName(), parsed);
            }
            name[at] = char16_t(0xD800 + at);
            EXPECT_TRUE(invalidLocation([&] { StorageIRI(base, name); })) << "lone surrogate";
            name[at] = u'\0';
            EXPECT_TRUE(invalidLocation([&] { childLocation(base, name); })) << "NUL";
        }
    }
}

TEST(StorageIRI, NestedConstruction)
{
    const StorageIRI archive(u"file:///tmp/a%20b.zip");
    const StorageIRI iri(u"ZIP", archive, u"docs/./../x y");
    EXPECT_EQ(iri.toString(), u"zip:file:///tmp/a%20b.zip!/x%20y");
    EXPECT_EQ(iri.getPath(), u"/x y");
    EXPECT_TRUE(iri.getInnerIRI() == archive);
    EXPECT_TRUE(iri == StorageIRI(iri.toString()));
    EXPECT_EQ(StorageIRI(u"tar", iri, u"").toString(), u"tar:zip:file:///tmp/a%20b.zip!/x%20y!/");
    expectRoundTrip(StorageIRI(u"tar", iri, u"/in!ner"));

    for (const ustring scheme : {u"", u"1zip", u"z ip", u"z:"})
        EXPECT_TRUE(invalidLocation([&] { StorageIRI(scheme, archive, u"/x"); })) << utf8(scheme);
    EXPECT_TRUE(invalidLocation([] { StorageIRI(u"zip", StorageIRI(u"mem://v"), u"/x"); }));
    EXPECT_TRUE(invalidLocation([] { StorageIRI(u"zip", StorageIRI(), u"/x"); }));
    EXPECT_TRUE(invalidLocation([&] { StorageIRI(u"zip", archive, ustring(1, char16_t(0xD800))); }));
}

// ---- navigation --------------------------------------------------------------------------------

TEST(StorageIRI, ParentAndName)
{
    const StorageIRI iri(u"file:///a%20b/c%21/d");
    EXPECT_EQ(iri.getParent().getName(), u"c!");
    EXPECT_EQ(iri.getParent().getParent().getName(), u"a b");
    const StorageIRI root(u"file:///");
    EXPECT_FALSE(root.hasParent());
    EXPECT_TRUE(root.getParent() == root);
    EXPECT_EQ(root.getName(), u"");

    const struct {
        std::u16string_view iri, parent;
    } cases[] = {
        {u"mem://vol/a", u"mem://vol/"},
        {u"x:/a/b", u"x:/a"},
        {u"zip:file:///t.zip!/a/b", u"zip:file:///t.zip!/a"},
        {u"zip:file:///t.zip!/", u"zip:file:///t.zip!/"},
        {u"file:///\u00E9/\U0001F600", u"file:///\u00E9"},
        {u"mem://vol", u"mem://vol"},
        {u"x:opaque", u"x:opaque"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(utf8(c.iri));
        const StorageIRI child{ustring(c.iri)};
        const StorageIRI up = child.getParent();
        EXPECT_EQ(up.toString(), c.parent);
        EXPECT_EQ(up.getInnerIRI().toString(), child.getInnerIRI().toString());
        EXPECT_EQ(up.getAuthority(), child.getAuthority());
        expectRoundTrip(up);
        if (child.hasParent()) {
            EXPECT_TRUE(StorageIRI(up, child.getName()) == child);
        }
    }
    EXPECT_FALSE(StorageIRI(u"mem://vol").hasParent());
    EXPECT_EQ(StorageIRI(u"mem://vol").getName(), u"");
}

TEST(StorageIRI, IsAncestorOfIsStrictAndSegmentWise)
{
    const struct {
        std::u16string_view ancestor, descendant;
        bool expected;
    } cases[] = {
        {u"file:///", u"file:///a", true},
        {u"file:///a", u"file:///a/b/c", true},
        {u"file:///a%20b", u"file:///a b/c", true},
        {u"zip:file:///t.zip!/", u"zip:file:///t.zip!/x", true},
        {u"file:///a", u"file:///a", false},
        {u"file:///a", u"file:///ab", false},
        {u"file:///a/b", u"file:///a", false},
        {u"file:///a", u"mem:///a/b", false},
        {u"mem://v/", u"mem://w/a", false},
        {u"x:/", u"x:///a", false},
        {u"zip:file:///t.zip!/", u"zip:file:///u.zip!/x", false},
        {u"file:///t.zip", u"zip:file:///t.zip!/x", false},
        {u"mem://v", u"mem://v/a", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(StorageIRI(ustring(c.ancestor)).isAncestorOf(StorageIRI(ustring(c.descendant))), c.expected)
            << utf8(c.ancestor) << " / " << utf8(c.descendant);
    EXPECT_FALSE(StorageIRI().isAncestorOf(StorageIRI(u"file:///a")));
    EXPECT_FALSE(StorageIRI(u"file:///").isAncestorOf(StorageIRI()));
}

TEST(StorageIRI, MakePathRelativeTo)
{
    const auto relative = [](std::u16string_view a, std::u16string_view b) {
        return StorageIRI(ustring(a)).makePathRelativeTo(StorageIRI(ustring(b)));
    };
    EXPECT_EQ(relative(u"file:///a/b/c", u"file:///a"), u"b/c");
    EXPECT_EQ(relative(u"file:///", u"file:///a/b"), u"../..");
    EXPECT_EQ(relative(u"file:///a/x", u"file:///a/b/c"), u"../../x");
    EXPECT_EQ(relative(u"file:///ab", u"file:///a"), u"../ab");
    EXPECT_EQ(relative(u"file:///a%20b/%C3%A9", u"file:///"), u"a b/\u00E9");
    EXPECT_EQ(relative(u"zip:file:///t.zip!/d/e", u"zip:file:///t.zip!/d"), u"e");

    // Resolving the result against the base gives the IRI back.
    const StorageIRI base(u"mem://v/a/b/c");
    for (const auto text : {u"mem://v/a/x/y", u"mem://v/", u"mem://v/a/b/c/d", u"mem://v/q"}) {
        const StorageIRI target{ustring(text)};
        EXPECT_TRUE(StorageIRI(base, target.makePathRelativeTo(base)) == target) << utf8(text);
    }

    for (const auto& pair : {std::pair{u"file:///a", u"mem:///a"}, std::pair{u"mem://v/a", u"mem://w/a"},
                             std::pair{u"zip:file:///t.zip!/a", u"file:///a"}, std::pair{u"mem://v", u"mem://v/"},
                             std::pair{u"x:/a", u"x:opaque"}}) {
        SCOPED_TRACE(utf8(pair.first) + " / " + utf8(pair.second));
        EXPECT_TRUE(invalidLocation([&] { relative(pair.first, pair.second); }));
    }
}

TEST(StorageIRI, PathViewWalksDecodedSegments)
{
    const auto segments = [](const foundation::storage::provider::PathView& view) {
        std::vector<ustring> out;
        for (auto it = view.begin(); it != view.end(); it++)
            out.emplace_back(*it);
        return out;
    };
    foundation::storage::provider::PathView view;
    {
        const StorageIRI iri(u"file:///a/b/c%20d/\u00E9");
        view = iri.getPathView();
    }
    EXPECT_EQ(view.path(), u"/a/b/c d/\u00E9");
    EXPECT_EQ(view.size(), 4u);
    EXPECT_FALSE(view.empty());
    EXPECT_THAT(segments(view), ::testing::ElementsAre(u"a", u"b", u"c d", u"\u00E9"));

    const auto root = StorageIRI(u"file:///").getPathView();
    EXPECT_EQ(root.path(), u"/");
    EXPECT_TRUE(root.empty());

    EXPECT_TRUE(StorageIRI(u"mem://v").getPathView().path().empty());
    EXPECT_THAT(segments(StorageIRI(u"zip:file:///t.zip!/x").getPathView()), ::testing::ElementsAre(u"x"));
}

} // namespace
