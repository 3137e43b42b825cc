#pragma once

// The s3: provider's connection to one S3 service: settings, credentials, signing, a pool of
// keep-alive connections, bounded retries, and the one translation of S3 failures into provider
// exceptions.

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/s3/detail/Signing.hpp>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/property_tree/ptree_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::provider::s3::detail {

struct Settings {
    std::string endpoint; // "http://127.0.0.1:7480"; empty: AWS's for the region
    std::string region = "us-east-1";
    Credentials credentials;
    bool pathStyle = true;
    std::chrono::milliseconds connectTimeout{5000};
    std::chrono::milliseconds requestTimeout{300000}; // without a byte moving for this long
    int retries = 4;
    int pageSize = 1000;
    std::uint64_t multipartThreshold = std::uint64_t(16) << 20;
    std::uint64_t partSize = std::uint64_t(8) << 20;
    int partsInFlight = 4;
    std::uint64_t readAhead = std::uint64_t(4) << 20;

    // From AWS_* variables and the ~/.aws files (AWS_PROFILE, else "default").
    static Settings fromEnvironment();
    // Applies configure() keys over these; refuses an unknown key or a bad value (InvalidLocation).
    void apply(const boost::property_tree::ptree& settings);
};

struct Request {
    Request(std::string method, std::string bucket, std::string key = {}, QueryParameters query = {}, Headers headers = {},
            const std::string* body = nullptr, bool signBody = false)
        : method(std::move(method)), bucket(std::move(bucket)), key(std::move(key)), query(std::move(query)),
          headers(std::move(headers)), body(body), signBody(signBody)
    {
    }
    std::string method;
    std::string bucket;
    std::string key; // UTF-8, no leading '/'; empty for bucket requests
    QueryParameters query;
    Headers headers;
    const std::string* body = nullptr;
    bool signBody = false; // hash the body into the signature (small XML bodies)
};

struct Response {
    long status = 0;
    std::map<std::string, std::string> headers; // lower-case names
    std::string body;
    std::string header(const std::string& name) const
    {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
    bool ok() const { return status >= 200 && status < 300; }
};

class Client {
public:
    explicit Client(Settings settings);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    Settings settings() const;
    void configure(const boost::property_tree::ptree& settings);

    // Sends the request, retrying throttling, 5xx answers and dropped connections a bounded number
    // of times with backoff. Transport failures (unreachable endpoint, timeout) are thrown as
    // provider exceptions at `location`; HTTP answers of any status are returned.
    Response send(const Request& request, const StorageIRI& location, const char* operation) const;

private:
    struct Pool;
    mutable std::mutex m_mutex;
    Settings m_settings;
    std::unique_ptr<Pool> m_pool;
};

// The one translation of an S3 failure: the error code from the answer's XML (or the HTTP status
// for bodiless answers) to an ErrorCode, with the operation and the S3 code as contexts.
[[noreturn]] void throwS3Error(const Response& response, const StorageIRI& location, const char* operation);

// "Tue, 24 Nov 2026 05:01:37 GMT" and "2026-11-24T05:01:37.123Z", both to whole seconds.
boost::posix_time::ptime parseHttpTime(const std::string& text);
boost::posix_time::ptime parseIsoTime(const std::string& text);

std::string xmlEscape(const std::string& text);

} // namespace foundation::storage::provider::s3::detail
