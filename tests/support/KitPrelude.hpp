#pragma once

// What the provider-level test files (the kit's suites, the per-provider and decorator tests) share:
// the harness, the test framework, common standard headers and short names for the provider types
// they use most. Library-level tests use Prelude.hpp instead, whose names are the library's.

#include "ProviderHarness.hpp"
#include "Threads.hpp"

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace vfs_test;
namespace pt = boost::posix_time;
using provider::ByteStreamAccess;
using provider::ByteStreamCreation;
using provider::ByteStreamOpenOptions;
using provider::CopyFileOptions;
using provider::ErrorCode;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;
using provider::ExtendedFeature;
using provider::FolderEntry;
using provider::ListKind;
using provider::ListOptions;
using provider::ReplacementPolicy;
using provider::StreamClosePolicy;
using provider::TransactionStatus;
