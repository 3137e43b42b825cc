#include "Store.hpp"

#include <fl/i18n/ustring.hpp>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace foundation::storage::provider::s3::detail {

namespace {

boost::property_tree::ptree parseXml(const std::string& body, const StorageIRI& location, const char* operation)
{
    boost::property_tree::ptree tree;
    try {
        std::istringstream in(body);
        boost::property_tree::read_xml(in, tree);
    } catch (const std::exception&) {
        throwProviderError(ErrorCode::IOError, location,
                           {ExceptionContext(fl::i18n::utf8_to_ustring(operation)), ExceptionContext(u"bad-xml")},
                           u"the S3 service answered with malformed XML");
    }
    return tree;
}

// Listing values come URL-encoded (encoding-type=url), so that any key survives XML.
std::string urlDecode(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size() + 0 && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string base64Md5(const std::string& body)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(body.data(), body.size(), digest, &size, EVP_md5(), nullptr);
    unsigned char out[64];
    const int length = EVP_EncodeBlock(out, digest, static_cast<int>(size));
    return std::string(reinterpret_cast<const char*>(out), static_cast<std::size_t>(length));
}

// A 200 answer may still carry an <Error> (CopyObject, CompleteMultipartUpload).
void checkAnswer(const Response& response, const StorageIRI& location, const char* operation)
{
    if (!response.ok() || response.body.find("<Error>") != std::string::npos) {
        Response failed = response;
        if (failed.ok())
            failed.status = 500;
        throwS3Error(failed, location, operation);
    }
}

} // namespace

Place placeOf(const StorageIRI& location)
{
    const ustring& path = location.getPath();
    return {fl::i18n::ustring_to_native(location.getAuthority()),
            fl::i18n::ustring_to_native(std::u16string_view(path).substr(path.empty() ? 0 : 1))};
}

bool Store::bucketExists(const std::string& bucket, const StorageIRI& location)
{
    const Response response = send({"HEAD", bucket, "", {}, {}, nullptr, false}, location, "HeadBucket");
    if (response.status == 404)
        return false;
    if (!response.ok())
        throwS3Error(response, location, "HeadBucket");
    return true;
}

std::optional<ObjectInfo> Store::head(const std::string& bucket, const std::string& key, const StorageIRI& location)
{
    const Response response = send({"HEAD", bucket, key, {}, {}, nullptr, false}, location, "HeadObject");
    if (response.status == 404)
        return std::nullopt;
    if (!response.ok())
        throwS3Error(response, location, "HeadObject");
    ObjectInfo info{key, 0, parseHttpTime(response.header("last-modified")), response.header("etag")};
    info.size = std::stoull("0" + response.header("content-length"));
    return info;
}

Store::Kind Store::kindOf(const std::string& bucket, const std::string& key, const StorageIRI& location, ObjectInfo* object)
{
    // With the delimiter, "key" itself is the first object if it is there and "key/" comes as a
    // common prefix; names such as "key.txt" sort before it, so a truncated page asks again.
    const std::string folder = key + "/";
    const ListPage page = list(bucket, key, true, "", 100, location);
    if (!page.objects.empty() && page.objects.front().key == key) {
        if (object)
            *object = page.objects.front();
        return Kind::Object;
    }
    if (std::find(page.prefixes.begin(), page.prefixes.end(), folder) != page.prefixes.end())
        return Kind::Folder;
    if (!page.continuation.empty() && prefixExists(bucket, folder, location))
        return Kind::Folder;
    return Kind::None;
}

bool Store::prefixExists(const std::string& bucket, const std::string& prefix, const StorageIRI& location)
{
    return !list(bucket, prefix, false, "", 1, location).objects.empty();
}

ListPage Store::list(const std::string& bucket, const std::string& prefix, bool delimited,
                     const std::string& continuation, int maxKeys, const StorageIRI& location)
{
    Request request{"GET", bucket, "", {{"list-type", "2"}, {"encoding-type", "url"}, {"max-keys", std::to_string(maxKeys)}}};
    if (!prefix.empty())
        request.query.emplace_back("prefix", prefix);
    if (delimited)
        request.query.emplace_back("delimiter", "/");
    if (!continuation.empty())
        request.query.emplace_back("continuation-token", continuation);
    const Response response = send(request, location, "ListObjectsV2");
    if (!response.ok())
        throwS3Error(response, location, "ListObjectsV2");
    const auto tree = parseXml(response.body, location, "ListObjectsV2");
    ListPage page;
    const auto result = tree.get_child_optional("ListBucketResult");
    if (!result)
        return page;
    for (const auto& [name, node] : *result) {
        if (name == "Contents")
            page.objects.push_back({urlDecode(node.get("Key", "")), node.get<std::uint64_t>("Size", 0),
                                    parseIsoTime(node.get("LastModified", "")), node.get("ETag", "")});
        else if (name == "CommonPrefixes")
            page.prefixes.push_back(urlDecode(node.get("Prefix", "")));
        else if (name == "NextContinuationToken")
            page.continuation = node.data();
    }
    if (tree.get("ListBucketResult.IsTruncated", "false") != "true")
        page.continuation.clear();
    return page;
}

namespace {

constexpr std::chrono::seconds freshness{2};

// The folder prefix of a key ("a/b/" of "a/b/c"; "" at the root) and the name below it.
std::pair<std::string, std::string> splitKey(const std::string& key)
{
    const std::string path = !key.empty() && key.back() == '/' ? key.substr(0, key.size() - 1) : key;
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return {std::string(), path};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

} // namespace

void Store::madeEmpty(const std::string& bucket, const std::string& folderPrefix, bool empty)
{
    const std::lock_guard lock(m_freshMutex);
    if (!empty) {
        m_fresh.erase(bucket + '\0' + folderPrefix);
        return;
    }
    if (m_fresh.size() >= 4096)
        m_fresh.clear();
    m_fresh[bucket + '\0' + folderPrefix] = {std::chrono::steady_clock::now(), {}};
}

void Store::forgetMadeFolders()
{
    const std::lock_guard lock(m_freshMutex);
    m_fresh.clear();
}

bool Store::surelyAbsent(const std::string& bucket, const std::string& key) const
{
    const auto [prefix, name] = splitKey(key);
    const std::lock_guard lock(m_freshMutex);
    const auto found = m_fresh.find(bucket + '\0' + prefix);
    return found != m_fresh.end() && std::chrono::steady_clock::now() - found->second.made < freshness &&
           !found->second.names.count(name);
}

void Store::writing(const std::string& bucket, const std::string& key)
{
    const std::lock_guard lock(m_freshMutex);
    if (m_fresh.empty())
        return;
    // Each fresh folder above the key now holds the name on the way down to it.
    for (std::size_t slash = key.find('/'); slash != std::string::npos; slash = key.find('/', slash + 1)) {
        const auto found = m_fresh.find(bucket + '\0' + key.substr(0, slash + 1));
        if (found == m_fresh.end() || slash + 1 == key.size())
            continue;
        const std::size_t end = key.find('/', slash + 1);
        found->second.names.insert(key.substr(slash + 1, end == std::string::npos ? std::string::npos : end - slash - 1));
    }
}

void Store::put(const std::string& bucket, const std::string& key, const std::string& body, bool onlyIfAbsent,
                const StorageIRI& location)
{
    writing(bucket, key);
    const Change change{*this};
    Request request{"PUT", bucket, key, {}, {}, &body, false};
    if (onlyIfAbsent)
        request.headers.emplace_back("if-none-match", "*");
    const Response response = send(request, location, "PutObject");
    if (!response.ok())
        throwS3Error(response, location, "PutObject");
}

void Store::copy(const std::string& fromBucket, const std::string& from, const std::string& toBucket, const std::string& to,
                 const StorageIRI& location)
{
    writing(toBucket, to);
    const Change change{*this};
    Request request{"PUT", toBucket, to};
    request.headers = {{"x-amz-copy-source", "/" + fromBucket + "/" + uriEncode(from, true)},
                       {"x-amz-metadata-directive", "COPY"}};
    checkAnswer(send(request, location, "CopyObject"), location, "CopyObject");
}

void Store::remove(const std::string& bucket, const std::string& key, const StorageIRI& location)
{
    const Change change{*this};
    const Response response = send({"DELETE", bucket, key}, location, "DeleteObject");
    if (!response.ok() && response.status != 404)
        throwS3Error(response, location, "DeleteObject");
}

void Store::removeKeys(const std::string& bucket, const std::vector<std::string>& keys, const StorageIRI& location)
{
    const Change change{*this};
    for (std::size_t first = 0; first < keys.size(); first += 1000) {
        std::string body = "<Delete><Quiet>true</Quiet>";
        for (std::size_t i = first; i < std::min(keys.size(), first + 1000); ++i)
            body += "<Object><Key>" + xmlEscape(keys[i]) + "</Key></Object>";
        body += "</Delete>";
        Request request{"POST", bucket, "", {{"delete", ""}}, {{"content-md5", base64Md5(body)}}, &body, true};
        checkAnswer(send(request, location, "DeleteObjects"), location, "DeleteObjects");
    }
}

Store::Range Store::read(const std::string& bucket, const std::string& key, std::uint64_t offset, std::uint64_t size,
                        const std::string& etag, const StorageIRI& location)
{
    Request request{"GET", bucket, key};
    request.headers.emplace_back("range", "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + size - 1));
    if (!etag.empty())
        request.headers.emplace_back("if-match", etag);
    Response response = send(request, location, "GetObject");
    if (response.status == 412)
        throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(u"GetObject"), ExceptionContext(u"changed")},
                           u"the object was replaced while it was read");
    if (response.status == 416)
        return {{}, etag, offset};
    if (!response.ok())
        throwS3Error(response, location, "GetObject");
    const std::string range = response.header("content-range"); // "bytes 0-99/1234"
    const auto slash = range.rfind('/');
    Range result{std::move(response.body), response.header("etag"), 0};
    result.total = slash == std::string::npos ? offset + result.bytes.size() : std::stoull("0" + range.substr(slash + 1));
    return result;
}

void Store::upload(const std::string& bucket, const std::string& key, int fd, std::uint64_t size, const StorageIRI& location)
{
    const Settings settings = m_client.settings();
    if (size > settings.multipartThreshold && size > settings.partSize)
        return uploadMultipart(bucket, key, fd, size, settings, location);
    std::string body(size, '\0');
    if (size && ::pread(fd, body.data(), size, 0) != static_cast<ssize_t>(size))
        throwProviderError(ErrorCode::IOError, location, {ExceptionContext(u"pread")}, u"the spool file could not be read");
    put(bucket, key, body, false, location);
}

void Store::uploadMultipart(const std::string& bucket, const std::string& key, int fd, std::uint64_t size,
                            const Settings&, const StorageIRI& location)
{
    MultipartUpload upload(*this, bucket, key, location);
    for (std::uint64_t offset = 0; offset < size;) {
        std::string part(std::min(upload.nextPartSize(), size - offset), '\0');
        if (::pread(fd, part.data(), part.size(), static_cast<off_t>(offset)) != static_cast<ssize_t>(part.size()))
            throwProviderError(ErrorCode::IOError, location, {ExceptionContext(u"pread")}, u"the spool file could not be read");
        offset += part.size();
        upload.add(std::move(part));
    }
    upload.complete();
}

MultipartUpload::MultipartUpload(Store& store, std::string bucket, std::string key, StorageIRI location)
    : m_store(store), m_bucket(std::move(bucket)), m_key(std::move(key)), m_location(std::move(location)),
      m_settings(store.client().settings())
{
    m_store.writing(m_bucket, m_key);
    const Response started = m_store.send({"POST", m_bucket, m_key, {{"uploads", ""}}}, m_location, "CreateMultipartUpload");
    if (!started.ok())
        throwS3Error(started, m_location, "CreateMultipartUpload");
    m_uploadId = parseXml(started.body, m_location, "CreateMultipartUpload").get("InitiateMultipartUploadResult.UploadId", "");
    if (m_uploadId.empty())
        throwProviderError(ErrorCode::IOError, m_location, {ExceptionContext(u"CreateMultipartUpload"), ExceptionContext(u"bad-xml")},
                           u"the S3 service started a multipart upload without naming it");
}

MultipartUpload::~MultipartUpload()
{
    if (!m_finished)
        abort();
}

std::uint64_t MultipartUpload::nextPartSize() const
{
    // 2,000 parts of each size, doubling: 10,000 parts of 8 MiB upwards hold about 500 GiB.
    return std::min(m_settings.partSize << (m_etags.size() / 2000), std::uint64_t(5) << 30);
}

void MultipartUpload::settle(std::size_t number, std::future<std::string>& part)
{
    try {
        m_etags[number - 1] = part.get();
    } catch (...) {
        abort();
        throw;
    }
}

void MultipartUpload::add(std::string part)
{
    if (m_finished)
        throwProviderError(ErrorCode::IOError, m_location, {ExceptionContext(u"UploadPart"), ExceptionContext(u"aborted")},
                           u"the multipart upload was aborted");
    while (m_inFlight.size() >= static_cast<std::size_t>(m_settings.partsInFlight)) {
        settle(m_inFlight.front().first, m_inFlight.front().second);
        m_inFlight.pop_front();
    }
    const std::size_t number = m_etags.size() + 1;
    m_etags.emplace_back();
    m_inFlight.emplace_back(number, std::async(std::launch::async, [this, number, body = std::move(part)] {
        const Response answer = m_store.send({"PUT", m_bucket, m_key, {{"partNumber", std::to_string(number)}, {"uploadId", m_uploadId}},
                                              {}, &body, false},
                                             m_location, "UploadPart");
        if (!answer.ok())
            throwS3Error(answer, m_location, "UploadPart");
        return answer.header("etag");
    }));
}

void MultipartUpload::complete()
{
    const Store::Change change{m_store};
    while (!m_inFlight.empty()) {
        settle(m_inFlight.front().first, m_inFlight.front().second);
        m_inFlight.pop_front();
    }
    if (m_finished)
        throwProviderError(ErrorCode::IOError, m_location, {ExceptionContext(u"CompleteMultipartUpload"), ExceptionContext(u"aborted")},
                           u"the multipart upload was aborted");
    std::string body = "<CompleteMultipartUpload>";
    for (std::size_t part = 0; part < m_etags.size(); ++part)
        body += "<Part><PartNumber>" + std::to_string(part + 1) + "</PartNumber><ETag>" + xmlEscape(m_etags[part]) + "</ETag></Part>";
    body += "</CompleteMultipartUpload>";
    try {
        checkAnswer(m_store.send({"POST", m_bucket, m_key, {{"uploadId", m_uploadId}}, {}, &body, true}, m_location,
                                 "CompleteMultipartUpload"),
                    m_location, "CompleteMultipartUpload");
    } catch (...) {
        abort();
        throw;
    }
    m_finished = true;
}

void MultipartUpload::abort() noexcept
{
    m_finished = true;
    for (auto& [number, part] : m_inFlight)
        if (part.valid())
            part.wait();
    m_inFlight.clear();
    try {
        m_store.send({"DELETE", m_bucket, m_key, {{"uploadId", m_uploadId}}}, m_location, "AbortMultipartUpload");
    } catch (...) {
        // The bucket's lifecycle removes what an unreachable service keeps.
    }
}

} // namespace foundation::storage::provider::s3::detail
