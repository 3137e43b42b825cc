// Request signing against known answers made by an independent signer (scripts/sigv4-vectors).

#include <foundation/storage/provider/s3/detail/Signing.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace s3 = foundation::storage::provider::s3::detail;

std::string unhex(const std::string& hex)
{
    std::string out;
    for (std::size_t i = 0; hex != "-" && i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

std::vector<std::pair<std::string, std::string>> unhexPairs(const std::string& field)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    std::istringstream in(field == "-" ? "" : field);
    for (std::string pair; std::getline(in, pair, ',');)
        pairs.emplace_back(unhex(pair.substr(0, pair.find(':'))), unhex(pair.substr(pair.find(':') + 1)));
    return pairs;
}

TEST(S3Signing, MatchesAnIndependentSignerForEveryKeyAndQueryShape)
{
    std::ifstream table(VFS_S3_SIGNING_VECTORS);
    ASSERT_TRUE(table) << VFS_S3_SIGNING_VECTORS;
    int rows = 0;
    for (std::string line; std::getline(table, line); ++rows) {
        std::vector<std::string> f;
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '\t');)
            f.push_back(field);
        ASSERT_EQ(f.size(), 9u) << line;
        s3::SigningRequest request;
        request.method = f[0];
        request.encodedPath = "/vfs-bucket/" + s3::uriEncode(unhex(f[2]), true);
        request.canonicalQuery = s3::canonicalQuery(unhexPairs(f[3]));
        request.headers = unhexPairs(f[4]);
        request.headers.emplace_back("host", f[1]);
        request.payloadHash = s3::sha256Hex(unhex(f[5]));
        request.amzDate = "20260124T050000Z";
        request.region = f[7];
        const s3::Credentials credentials{"AKIDVFSEXAMPLE", "wJalrXUtnFEMI/K7MDENG+bPxRfiCYEXAMPLEKEY",
                                          f[6] == "1" ? "FwoGZXIvYXdzEJr//////////wEaDtoken+/=" : ""};
        EXPECT_EQ(s3::signRequest(request, credentials), f[8]) << "row " << rows << ": " << unhex(f[2]);
    }
    EXPECT_GE(rows, 14);
}

TEST(S3Signing, EncodesKeysByteForByte)
{
    const struct {
        std::string key, path, query;
    } rows[] = {
        {"a b+c", "a%20b%2Bc", "a%20b%2Bc"},
        {"100%/x", "100%25/x", "100%25%2Fx"},
        {"!'()*~-_.", "%21%27%28%29%2A~-_.", "%21%27%28%29%2A~-_."},
        {"\xF0\x9F\x98\x80", "%F0%9F%98%80", "%F0%9F%98%80"},
        {"a//b/./..", "a//b/./..", "a%2F%2Fb%2F.%2F.."},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(s3::uriEncode(row.key, true), row.path);
        EXPECT_EQ(s3::uriEncode(row.key, false), row.query);
    }
    EXPECT_EQ(s3::canonicalQuery({{"uploads", ""}}), "uploads=");
    EXPECT_EQ(s3::canonicalQuery({{"uploadId", "x/y"}, {"partNumber", "1"}}), "partNumber=1&uploadId=x%2Fy");
}

} // namespace
