#include <foundation/storage/provider/s3/detail/Signing.hpp>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace foundation::storage::provider::s3::detail {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";
constexpr char upperHexDigits[] = "0123456789ABCDEF";

std::string toHex(const unsigned char* bytes, std::size_t size)
{
    std::string out(size * 2, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        out[2 * i] = hexDigits[bytes[i] >> 4];
        out[2 * i + 1] = hexDigits[bytes[i] & 15];
    }
    return out;
}

std::string hmac(std::string_view key, std::string_view message)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(message.data()),
         message.size(), digest.data(), &size);
    return std::string(reinterpret_cast<const char*>(digest.data()), size);
}

// Blanks around a value dropped and runs of them inside folded to one, as the signature defines.
std::string trimmed(std::string_view value)
{
    std::string out;
    bool blank = false;
    for (const char c : value) {
        if (c == ' ' || c == '\t') {
            blank = !out.empty();
            continue;
        }
        if (blank)
            out += ' ';
        blank = false;
        out += c;
    }
    return out;
}

} // namespace

std::string uriEncode(std::string_view bytes, bool keepSlash)
{
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 2);
    for (const char c : bytes) {
        const auto u = static_cast<unsigned char>(c);
        if ((u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || (u >= '0' && u <= '9') || u == '-' || u == '_' ||
            u == '.' || u == '~' || (keepSlash && u == '/')) {
            out += c;
        } else {
            out += '%';
            out += upperHexDigits[u >> 4];
            out += upperHexDigits[u & 15];
        }
    }
    return out;
}

std::string canonicalQuery(QueryParameters parameters)
{
    for (auto& [name, value] : parameters) {
        name = uriEncode(name, false);
        value = uriEncode(value, false);
    }
    std::sort(parameters.begin(), parameters.end());
    std::string out;
    for (const auto& [name, value] : parameters) {
        if (!out.empty())
            out += '&';
        out += name;
        out += '=';
        out += value;
    }
    return out;
}

std::string sha256Hex(std::string_view bytes)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr);
    return toHex(digest.data(), size);
}

std::string signRequest(SigningRequest& request, const Credentials& credentials)
{
    request.headers.emplace_back("x-amz-date", request.amzDate);
    request.headers.emplace_back("x-amz-content-sha256", request.payloadHash);
    if (!credentials.sessionToken.empty())
        request.headers.emplace_back("x-amz-security-token", credentials.sessionToken);

    Headers canonical;
    for (const auto& [name, value] : request.headers) {
        std::string lower = name;
        std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
        canonical.emplace_back(std::move(lower), trimmed(value));
    }
    std::stable_sort(canonical.begin(), canonical.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::string headerBlock;
    std::string signedHeaders;
    for (std::size_t i = 0; i < canonical.size(); ++i) {
        if (i > 0 && canonical[i].first == canonical[i - 1].first) {
            headerBlock.back() = ',';
            headerBlock += canonical[i].second + '\n';
            continue;
        }
        headerBlock += canonical[i].first + ':' + canonical[i].second + '\n';
        if (!signedHeaders.empty())
            signedHeaders += ';';
        signedHeaders += canonical[i].first;
    }

    const std::string canonicalRequest = request.method + '\n' + request.encodedPath + '\n' + request.canonicalQuery +
                                         '\n' + headerBlock + '\n' + signedHeaders + '\n' + request.payloadHash;
    const std::string day = request.amzDate.substr(0, 8);
    const std::string scope = day + '/' + request.region + "/s3/aws4_request";
    const std::string toSign = "AWS4-HMAC-SHA256\n" + request.amzDate + '\n' + scope + '\n' + sha256Hex(canonicalRequest);
    std::string key = hmac("AWS4" + credentials.secretAccessKey, day);
    key = hmac(key, request.region);
    key = hmac(key, "s3");
    key = hmac(key, "aws4_request");
    const std::string signature = hmac(key, toSign);
    return "AWS4-HMAC-SHA256 Credential=" + credentials.accessKeyId + '/' + scope + ", SignedHeaders=" + signedHeaders +
           ", Signature=" + toHex(reinterpret_cast<const unsigned char*>(signature.data()), signature.size());
}

} // namespace foundation::storage::provider::s3::detail
