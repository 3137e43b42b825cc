// The README's s3: settings, as a program that ctest builds and runs (no request is sent).

#include <foundation/storage/vfs.hpp>

#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <iostream>
#include <memory>

namespace vfs = foundation::storage::vfs;

int main()
{
    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    boost::property_tree::ptree s3;
    s3.put("endpoint", "http://127.0.0.1:7480");
    s3.put("addressing", "path");
    system->configure(u"s3", s3);  // over what AWS_* and ~/.aws say
    const auto schemes = system->schemes();
    const bool served = std::find(schemes.begin(), schemes.end(), u"s3") != schemes.end();
    std::cout << "s3: " << (served ? "served" : "missing") << "\n";
    return served ? 0 : 1;
}
