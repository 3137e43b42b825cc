#include "Client.hpp"

#include <fl/i18n/ustring.hpp>

#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace foundation::storage::provider::s3::detail {

namespace {

ustring text16(std::string_view utf8)
{
    return fl::i18n::utf8_to_ustring_lossy(std::string(utf8));
}

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

// The sections of an AWS-style INI file: section name -> key -> value.
std::map<std::string, std::map<std::string, std::string>> readIni(const std::string& path)
{
    std::map<std::string, std::map<std::string, std::string>> sections;
    std::ifstream in(path);
    std::string section;
    const auto trim = [](std::string s) {
        const auto first = s.find_first_not_of(" \t\r");
        const auto last = s.find_last_not_of(" \t\r");
        return first == std::string::npos ? std::string() : s.substr(first, last - first + 1);
    };
    for (std::string line; std::getline(in, line);) {
        line = trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line.front() == '[' && line.back() == ']') {
            section = trim(line.substr(1, line.size() - 2));
            continue;
        }
        const auto equals = line.find('=');
        if (equals != std::string::npos)
            sections[section][trim(line.substr(0, equals))] = trim(line.substr(equals + 1));
    }
    return sections;
}

void loadProfile(Settings& settings, const std::string& profile)
{
    const std::string home = environment("HOME");
    std::string credentialsFile = environment("AWS_SHARED_CREDENTIALS_FILE");
    std::string configFile = environment("AWS_CONFIG_FILE");
    if (credentialsFile.empty() && !home.empty())
        credentialsFile = home + "/.aws/credentials";
    if (configFile.empty() && !home.empty())
        configFile = home + "/.aws/config";
    auto credentials = readIni(credentialsFile)[profile];
    auto config = readIni(configFile)[profile == "default" ? profile : "profile " + profile];
    const auto take = [](std::map<std::string, std::string>& from, const char* key, std::string& into) {
        if (const auto found = from.find(key); found != from.end())
            into = found->second;
    };
    for (auto* section : {&config, &credentials}) {
        take(*section, "aws_access_key_id", settings.credentials.accessKeyId);
        take(*section, "aws_secret_access_key", settings.credentials.secretAccessKey);
        take(*section, "aws_session_token", settings.credentials.sessionToken);
    }
    take(config, "region", settings.region);
    take(config, "endpoint_url", settings.endpoint);
}

[[noreturn]] void badSetting(const std::string& key, const std::string& why)
{
    throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                       {ExceptionContext(u"configure"), ExceptionContext(text16(key), u"bad-value")},
                       text16("the s3 setting \"" + key + "\" needs " + why));
}

std::uint64_t number(const std::string& key, const std::string& value, std::uint64_t least, std::uint64_t most)
{
    std::uint64_t parsed = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), parsed);
    if (value.empty() || error != std::errc() || end != value.data() + value.size() || parsed < least || parsed > most)
        badSetting(key, "a decimal number from " + std::to_string(least) + " to " + std::to_string(most));
    return parsed;
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string amzDateNow()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char out[20];
    std::strftime(out, sizeof out, "%Y%m%dT%H%M%SZ", &utc);
    return out;
}

struct Endpoint {
    std::string scheme; // "http" / "https"
    std::string host;   // with ":port" when one is given
};

Endpoint parseEndpoint(const Settings& settings)
{
    std::string url = settings.endpoint.empty() ? "https://s3." + settings.region + ".amazonaws.com" : settings.endpoint;
    Endpoint endpoint{"https", url};
    if (const auto colon = url.find("://"); colon != std::string::npos) {
        endpoint.scheme = lower(url.substr(0, colon));
        endpoint.host = url.substr(colon + 3);
    }
    if (const auto slash = endpoint.host.find('/'); slash != std::string::npos)
        endpoint.host.resize(slash);
    return endpoint;
}

bool retryable(long status) { return status == 429 || status == 500 || status == 502 || status == 503 || status == 504; }

} // namespace

Settings Settings::fromEnvironment()
{
    Settings settings;
    const std::string profile = environment("AWS_PROFILE");
    loadProfile(settings, profile.empty() ? "default" : profile);
    const auto take = [](const char* name, std::string& into) {
        if (const std::string value = environment(name); !value.empty())
            into = value;
    };
    if (!environment("AWS_ACCESS_KEY_ID").empty()) {
        settings.credentials = {};
        take("AWS_ACCESS_KEY_ID", settings.credentials.accessKeyId);
        take("AWS_SECRET_ACCESS_KEY", settings.credentials.secretAccessKey);
        take("AWS_SESSION_TOKEN", settings.credentials.sessionToken);
    }
    take("AWS_DEFAULT_REGION", settings.region);
    take("AWS_REGION", settings.region);
    take("AWS_ENDPOINT_URL_S3", settings.endpoint);
    take("AWS_ENDPOINT_URL", settings.endpoint);
    settings.pathStyle = !settings.endpoint.empty();
    return settings;
}

void Settings::apply(const boost::property_tree::ptree& tree)
{
    Settings next = *this;
    for (const auto& [key, node] : tree) {
        const std::string& value = node.data();
        if (!node.empty())
            badSetting(key, "a plain value");
        if (key == "endpoint") {
            if (value.rfind("http://", 0) != 0 && value.rfind("https://", 0) != 0)
                badSetting(key, "an http:// or https:// address");
            next.endpoint = value;
        } else if (key == "region") {
            next.region = value;
        } else if (key == "accessKeyId") {
            next.credentials.accessKeyId = value;
        } else if (key == "secretAccessKey") {
            next.credentials.secretAccessKey = value;
        } else if (key == "sessionToken") {
            next.credentials.sessionToken = value;
        } else if (key == "profile") {
            next.credentials = {};
            loadProfile(next, value);
        } else if (key == "addressing") {
            if (value != "path" && value != "virtual")
                badSetting(key, "\"path\" or \"virtual\"");
            next.pathStyle = value == "path";
        } else if (key == "connectTimeoutMs") {
            next.connectTimeout = std::chrono::milliseconds(number(key, value, 1, 600000));
        } else if (key == "requestTimeoutMs") {
            next.requestTimeout = std::chrono::milliseconds(number(key, value, 1000, 3600000));
        } else if (key == "retries") {
            next.retries = static_cast<int>(number(key, value, 0, 20));
        } else if (key == "pageSize") {
            next.pageSize = static_cast<int>(number(key, value, 1, 1000));
        } else if (key == "multipartThreshold") {
            next.multipartThreshold = number(key, value, 1, std::uint64_t(5) << 30);
        } else if (key == "partSize") {
            next.partSize = number(key, value, std::uint64_t(5) << 20, std::uint64_t(5) << 30);
        } else if (key == "partsInFlight") {
            next.partsInFlight = static_cast<int>(number(key, value, 1, 64));
        } else if (key == "readAhead") {
            next.readAhead = number(key, value, 4096, std::uint64_t(1) << 30);
        } else {
            throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                               {ExceptionContext(u"configure"), ExceptionContext(text16(key), u"unknown-setting")},
                               text16("the s3 provider has no setting \"" + key + "\""));
        }
    }
    *this = std::move(next);
}

struct Client::Pool {
    std::mutex mutex;
    std::vector<CURL*> idle;
    ~Pool()
    {
        for (CURL* handle : idle)
            curl_easy_cleanup(handle);
    }
    CURL* take()
    {
        {
            std::lock_guard lock(mutex);
            if (!idle.empty()) {
                CURL* handle = idle.back();
                idle.pop_back();
                return handle;
            }
        }
        return curl_easy_init();
    }
    void give(CURL* handle)
    {
        curl_easy_reset(handle); // keeps the connection open for the next request
        std::lock_guard lock(mutex);
        idle.push_back(handle);
    }
};

Client::Client(Settings settings) : m_settings(std::move(settings))
{
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)initialised;
    m_pool = std::make_unique<Pool>();
}

Client::~Client() = default;

Settings Client::settings() const
{
    std::lock_guard lock(m_mutex);
    return m_settings;
}

void Client::configure(const boost::property_tree::ptree& tree)
{
    std::lock_guard lock(m_mutex);
    m_settings.apply(tree);
}

namespace {

struct Exchange {
    Response* response;
    bool bodyComing; // not a HEAD: a Content-Length announces the body that follows
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self)
    {
        static_cast<Exchange*>(self)->response->body.append(data, size * count);
        return size * count;
    }
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self)
    {
        auto& headers = static_cast<Exchange*>(self)->response->headers;
        std::string_view line(data, size * count);
        if (line.rfind("HTTP/", 0) == 0)
            headers.clear(); // a new answer (after a 100 Continue, for instance)
        if (const auto colon = line.find(':'); colon != std::string_view::npos) {
            std::string_view value = line.substr(colon + 1);
            while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
                value.remove_prefix(1);
            while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
                value.remove_suffix(1);
            std::string name = lower(std::string(line.substr(0, colon)));
            // The whole body in one allocation: a range of several MiB grown by doubling would be
            // copied over and over.
            if (name == "content-length" && static_cast<Exchange*>(self)->bodyComing) {
                std::uint64_t length = 0;
                std::from_chars(value.data(), value.data() + value.size(), length);
                static_cast<Exchange*>(self)->response->body.reserve(std::min<std::uint64_t>(length, std::uint64_t(64) << 20));
            }
            headers[std::move(name)] = std::string(value);
        }
        return size * count;
    }
};

} // namespace

Response Client::send(const Request& request, const StorageIRI& location, const char* operation) const
{
    const Settings settings = this->settings();
    const Endpoint endpoint = parseEndpoint(settings);
    std::string host = endpoint.host;
    std::string path;
    if (settings.pathStyle || request.bucket.empty()) {
        path = "/" + uriEncode(request.bucket, false);
        if (!request.key.empty())
            path += "/" + uriEncode(request.key, true);
    } else {
        host = request.bucket + "." + host;
        path = "/" + uriEncode(request.key, true);
    }
    const std::string query = canonicalQuery(request.query);
    const std::string url = endpoint.scheme + "://" + host + path + (query.empty() ? "" : "?" + query);
    const std::string payloadHash =
        request.signBody || !request.body ? sha256Hex(request.body ? *request.body : std::string()) : "UNSIGNED-PAYLOAD";

    std::minstd_rand random(std::random_device{}());
    for (int attempt = 0;; ++attempt) {
        SigningRequest signing{request.method, path, query, request.headers, payloadHash, amzDateNow(), settings.region};
        signing.headers.emplace_back("host", host);
        const std::string authorization = signRequest(signing, settings.credentials);
        curl_slist* headers = nullptr;
        for (const auto& [name, value] : signing.headers)
            headers = curl_slist_append(headers, (name + ": " + value).c_str());
        headers = curl_slist_append(headers, ("authorization: " + authorization).c_str());
        headers = curl_slist_append(headers, "Expect:");
        headers = curl_slist_append(headers, "Content-Type:");

        Response response;
        Exchange exchange{&response, request.method != "HEAD"};
        CURL* handle = m_pool->take();
        curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
        curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L); // keys may hold "." and ".." segments
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeout.count()));
        curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME,
                         static_cast<long>(std::max<std::int64_t>(1, settings.requestTimeout.count() / 1000)));
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Exchange::onBody);
        curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
        curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
        curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
        // Bodies of ranges come in a few large reads rather than many of curl's default 16 KiB.
        if (request.method == "GET")
            curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, 512L * 1024);
        if (request.method == "HEAD") {
            curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
        } else if (request.method != "GET") {
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
            if (request.body || request.method == "PUT" || request.method == "POST") {
                static const std::string empty;
                const std::string& body = request.body ? *request.body : empty;
                curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
                // Parts go out in a few large writes rather than many of curl's default 64 KiB.
                if (body.size() >= (std::size_t(1) << 20))
                    curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
                curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
            }
        }
        const CURLcode result = curl_easy_perform(handle);
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response.status);
        curl_slist_free_all(headers);
        if (result == CURLE_OK)
            m_pool->give(handle);
        else
            curl_easy_cleanup(handle); // its connection may be half-used

        const bool transportFailed = result != CURLE_OK;
        // Only a refusal can say SlowDown: a body of data is not searched for it.
        const bool throttled = !transportFailed && !response.ok() && response.body.find("<Code>SlowDown</Code>") != std::string::npos;
        const bool again = transportFailed ? result != CURLE_OPERATION_TIMEDOUT : retryable(response.status) || throttled;
        if (!again || attempt >= settings.retries) {
            if (transportFailed)
                throwProviderError(ErrorCode::IOError, location,
                                   {ExceptionContext(text16(operation)), ExceptionContext(u"curl", text16(curl_easy_strerror(result)))},
                                   text16("cannot reach the S3 endpoint " + endpoint.scheme + "://" + endpoint.host + ": " +
                                          curl_easy_strerror(result)));
            return response;
        }
        const auto base = std::chrono::milliseconds(50) * (1 << std::min(attempt, 6));
        std::this_thread::sleep_for(base / 2 + std::chrono::milliseconds(random() % static_cast<unsigned>(base.count())));
    }
}

void throwS3Error(const Response& response, const StorageIRI& location, const char* operation)
{
    std::string code;
    std::string message;
    if (!response.body.empty()) {
        try {
            boost::property_tree::ptree tree;
            std::istringstream in(response.body);
            boost::property_tree::read_xml(in, tree);
            code = tree.get("Error.Code", "");
            message = tree.get("Error.Message", "");
        } catch (const std::exception&) {
        }
    }
    if (code.empty()) {
        switch (response.status) {
        case 400: code = "BadRequest"; break; // a bodiless refusal, an over-long key for instance
        case 404: code = "NotFound"; break;
        case 403: code = "Forbidden"; break;
        case 412: code = "PreconditionFailed"; break;
        default: code = "HTTP" + std::to_string(response.status);
        }
    }
    static const std::map<std::string, ErrorCode> codes = {
        {"NoSuchKey", ErrorCode::ResourceNotFound},          {"NoSuchBucket", ErrorCode::ResourceNotFound},
        {"NoSuchUpload", ErrorCode::ResourceNotFound},       {"NotFound", ErrorCode::ResourceNotFound},
        {"AccessDenied", ErrorCode::PermissionDenied},       {"InvalidAccessKeyId", ErrorCode::PermissionDenied},
        {"SignatureDoesNotMatch", ErrorCode::PermissionDenied}, {"Forbidden", ErrorCode::PermissionDenied},
        {"InvalidToken", ErrorCode::PermissionDenied},       {"ExpiredToken", ErrorCode::PermissionDenied},
        {"RequestTimeTooSkewed", ErrorCode::PermissionDenied}, {"AccountProblem", ErrorCode::PermissionDenied},
        {"PreconditionFailed", ErrorCode::ResourceAlreadyExists}, {"BucketAlreadyExists", ErrorCode::ResourceAlreadyExists},
        {"BucketAlreadyOwnedByYou", ErrorCode::ResourceAlreadyExists}, {"BucketNotEmpty", ErrorCode::FolderNotEmpty},
        {"EntityTooLarge", ErrorCode::FileTooLarge},          {"QuotaExceeded", ErrorCode::NoSpaceLeft},
        {"InvalidArgument", ErrorCode::InvalidLocation},      {"KeyTooLongError", ErrorCode::InvalidLocation},
        {"InvalidBucketName", ErrorCode::InvalidLocation},
        {"BadRequest", ErrorCode::InvalidLocation},    {"NotImplemented", ErrorCode::UnsupportedOperation},
    };
    ErrorCode error = ErrorCode::IOError;
    if (const auto found = codes.find(code); found != codes.end())
        error = found->second;
    else if (response.status == 409)
        error = ErrorCode::ResourceInUse;
    throwProviderError(error, location, {ExceptionContext(text16(operation)), ExceptionContext(text16(code))},
                       text16("S3 " + std::string(operation) + " answered " + std::to_string(response.status) + " " + code +
                              (message.empty() ? "" : ": " + message)));
}

boost::posix_time::ptime parseHttpTime(const std::string& text)
{
    std::tm parsed{};
    if (!strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S", &parsed))
        return boost::posix_time::from_time_t(0);
    return boost::posix_time::from_time_t(timegm(&parsed));
}

boost::posix_time::ptime parseIsoTime(const std::string& text)
{
    std::tm parsed{};
    if (!strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parsed))
        return boost::posix_time::from_time_t(0);
    return boost::posix_time::from_time_t(timegm(&parsed));
}

std::string xmlEscape(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

} // namespace foundation::storage::provider::s3::detail
