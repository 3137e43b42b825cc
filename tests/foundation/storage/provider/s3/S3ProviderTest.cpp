// What is particular to the s3: provider; its behaviour as a storage is the conformance kit's.

#include <KitPrelude.hpp>

#include <foundation/storage/provider/s3/detail/Signing.hpp>

#include <curl/curl.h>

#include <ctime>

namespace {

namespace s3 = foundation::storage::provider::s3::detail;

class S3ProviderTest : public testing::Test {
protected:
    void SetUp() override
    {
        harness = std::make_unique<S3Harness>();
        storage = harness->provider();
        root = harness->root();
    }
    void set(const std::string& key, const std::string& value) const
    {
        boost::property_tree::ptree settings;
        settings.put(key, value);
        storage->configure(settings);
    }
    void write(const StorageIRI& at, const std::string& content, bool commit = true, provider::ByteStreamOpenOptions options = {}) const
    {
        auto stream = storage->openTransactionalStream(at, options);
        for (std::size_t from = 0; from < content.size(); from += 1 << 20) // in pieces, as a copy writes
            stream->write(content.data() + from, static_cast<std::streamsize>(std::min<std::size_t>(1 << 20, content.size() - from)));
        stream->close(commit ? provider::StreamClosePolicy::Commit : provider::StreamClosePolicy::Discard);
    }
    std::string read(const StorageIRI& at) const
    {
        auto stream = storage->openReadOnlyStream(at);
        std::string content(1 << 16, '\0'), all;
        for (std::streamsize got; (got = stream->read(content.data(), 1 << 16)) > 0;)
            all.append(content.data(), static_cast<std::size_t>(got));
        return all;
    }
    // Sends a request of another client, bypassing the provider's names; the answer's body.
    std::string rawRequest(const std::string& method, const std::string& key, const std::string& query = {}) const
    {
        const auto settings = s3TestSettings();
        const std::string host = settings.get<std::string>("endpoint").substr(7);
        s3::SigningRequest request{method, "/vfs-tests" + (key.empty() ? "" : "/" + s3::uriEncode(key, true)), query, {{"host", host}}, s3::sha256Hex(""), "", "us-east-1"};
        char date[20];
        const std::time_t now = std::time(nullptr);
        std::strftime(date, sizeof date, "%Y%m%dT%H%M%SZ", std::gmtime(&now));
        request.amzDate = date;
        const std::string authorization =
            s3::signRequest(request, {settings.get<std::string>("accessKeyId"), settings.get<std::string>("secretAccessKey"), ""});
        curl_slist* headers = curl_slist_append(nullptr, ("authorization: " + authorization).c_str());
        for (const auto& [name, value] : request.headers)
            headers = curl_slist_append(headers, (name + ": " + value).c_str());
        CURL* curl = curl_easy_init();
        const std::string url = "http://" + host + request.encodedPath + (query.empty() ? "" : "?" + query);
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        if (method == "PUT")
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        std::string body;
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +[](char* data, std::size_t, std::size_t n, std::string* into) {
            into->append(data, n);
            return n;
        });
        long status = 0;
        EXPECT_EQ(curl_easy_perform(curl), CURLE_OK);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        EXPECT_LT(status, 300) << method << " " << key;
        curl_easy_cleanup(curl);
        curl_slist_free_all(headers);
        return body;
    }
    void putRawKey(const std::string& key) const { rawRequest("PUT", key); }
    std::string keyOf(const ustring& relative) const { return fl::i18n::ustring_to_utf8(below(relative).getPath().substr(1)); }
    StorageIRI below(const ustring& relative) const { return StorageIRI(root, relative); }

    std::unique_ptr<S3Harness> harness;
    std::shared_ptr<provider::IProvider> storage;
    StorageIRI root;
};

TEST_F(S3ProviderTest, KeysOfEveryShapeRoundTripThroughNamesListingsAndContent)
{
    const std::string prefix = keyOf(u"");
    const std::vector<std::string> names = {"a b", "100%", "bang!", "a+b", "~tilde", "\xF0\x9F\x98\x80 emoji", "caf\xC3\xA9",
                                            "q?x#y", std::string(1023 - prefix.size(), 'k')};
    for (const auto& name : names)
        write(below(fl::i18n::utf8_to_ustring(name)), name);
    std::vector<std::string> listed = entryNames(listedEntries(*storage, root, {}));
    std::vector<std::string> expected = names;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listed, expected);
    for (const auto& name : names)
        EXPECT_EQ(read(below(fl::i18n::utf8_to_ustring(name))), name);
    EXPECT_TRUE(failsWith([&] { write(below(fl::i18n::utf8_to_ustring(std::string(1025 - prefix.size(), 'k'))), "x"); },
                          ErrorCode::InvalidLocation, below(fl::i18n::utf8_to_ustring(std::string(1025 - prefix.size(), 'k')))));
}

TEST_F(S3ProviderTest, SmallPagesListEverythingAndKeysNoIRICanNameStayOut)
{
    set("pageSize", "2");
    for (const char16_t* name : {u"f1", u"f2", u"f3", u"g1", u"d/x", u"d/y/z", u"e/w"})
        write(harness->makeFile(name), "x");
    storage->createFolder(below(u"empty"));
    for (const char* odd : {"/d//b", "/d/./c", "/d/../e2", "/d/y/.", "/./e"})
        putRawKey(keyOf(u"") + odd);
    EXPECT_EQ(entryNames(listedEntries(*storage, root, {}), true),
              (std::vector<std::string>{"d/", "e/", "empty/", "f1", "f2", "f3", "g1"}));
    EXPECT_EQ(entryNames(listedEntries(*storage, root, makeListOptions(provider::ListKind::All, true, u"f*"))),
              (std::vector<std::string>{"f1", "f2", "f3"}));
    EXPECT_EQ(entryNames(listedEntries(*storage, below(u"d"), makeListOptions(provider::ListKind::All, false, {}, true)), true),
              (std::vector<std::string>{"x", "y/", "y/z"}));
    EXPECT_EQ(read(below(u"d/x")), "x");
    EXPECT_FALSE(storage->fileExists(below(u"d/b"))); // "d//b" is not "d/b"
}

TEST_F(S3ProviderTest, MultipartObjectsAppearOnlyOnCommitAndDiscardLeavesNothing)
{
    set("multipartThreshold", std::to_string(5 << 20));
    set("partSize", std::to_string(5 << 20));
    std::string content(12 << 20, '\0');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 7 / 4096);
    const StorageIRI big = below(u"big.bin");
    write(big, content, false);
    EXPECT_FALSE(storage->fileExists(big));
    // Appending writes send their parts while the writer goes on: a discard aborts what was sent.
    write(big, content, false, {provider::ByteStreamAccess::Write, provider::ByteStreamCreation::CreateIfMissing, 0, 0});
    EXPECT_FALSE(storage->fileExists(big));
    EXPECT_EQ(rawRequest("GET", "", "prefix=" + s3::uriEncode(keyOf(u"big.bin"), false) + "&uploads=").find("<Upload>"), std::string::npos) << "an upload left pending";
    write(below(u"streamed.bin"), content, true, {provider::ByteStreamAccess::Write, provider::ByteStreamCreation::CreateIfMissing, 0, 0});
    EXPECT_EQ(read(below(u"streamed.bin")), content);
    write(big, content);
    EXPECT_EQ(storage->getFileAttributes(big).getSize(), content.size());
    auto stream = storage->openReadOnlyStream(big);
    std::string window(100, '\0');
    stream->seek(9 << 20, std::ios_base::beg);
    ASSERT_EQ(stream->read(window.data(), 100), 100);
    EXPECT_EQ(window, content.substr(9 << 20, 100));
    EXPECT_EQ(read(big), content);
}

TEST_F(S3ProviderTest, WhatAnotherClientDidIsNeverHiddenByWhatThisOneSaw)
{
    const StorageIRI file = harness->makeFile(u"d/f");
    EXPECT_TRUE(storage->folderExists(below(u"d")));
    EXPECT_TRUE(storage->fileExists(file));
    rawRequest("DELETE", keyOf(u"d/f"));
    EXPECT_FALSE(storage->fileExists(file));
    storage->createFile(file); // the removal is seen
    EXPECT_EQ(storage->getFileAttributes(file).getSize(), 0u);
    EXPECT_FALSE(storage->fileExists(below(u"d/g")));
    putRawKey(keyOf(u"d/g"));
    EXPECT_TRUE(failsWith([&] { storage->createFile(below(u"d/g")); }, ErrorCode::ResourceAlreadyExists, below(u"d/g")));
}

TEST_F(S3ProviderTest, ConcurrentWritersOfOneKeyNeverShowAMix)
{
    const StorageIRI shared = below(u"shared.bin");
    write(shared, std::string(1 << 20, 'a'));
    runOnThreads(4, [&](int thread) {
        for (int round = 0; round < 4; ++round) {
            if (thread < 2) {
                write(shared, std::string(1 << 20, static_cast<char>('b' + thread)));
            } else {
                const std::string seen = read(shared);
                EXPECT_EQ(seen.size(), 1u << 20);
                EXPECT_EQ(seen.find_first_not_of(seen.front()), std::string::npos) << "a mix of two writes";
            }
        }
    });
}

TEST_F(S3ProviderTest, BadCredentialsMissingBucketsAndUnreachableEndpointsFailClearly)
{
    set("secretAccessKey", "not-the-secret-1234");
    const auto denied = providerError([&] { storage->exists(below(u"x")); });
    ASSERT_TRUE(denied);
    EXPECT_EQ(denied->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_EQ(std::string(denied->what()).find("not-the-secret-1234"), std::string::npos);
    set("secretAccessKey", s3TestSettings().get<std::string>("secretAccessKey"));
    EXPECT_FALSE(storage->folderExists(StorageIRI(u"s3://no-such-bucket/")));
    EXPECT_TRUE(failsWith([&] { storage->createFile(StorageIRI(u"s3://no-such-bucket/a")); }, ErrorCode::ResourceNotFound,
                          StorageIRI(u"s3://no-such-bucket/a")));
    set("endpoint", "http://127.0.0.1:1");
    set("retries", "1");
    EXPECT_TRUE(failsWith([&] { storage->exists(below(u"x")); }, ErrorCode::IOError, below(u"x"), "curl"));
}

} // namespace
