#pragma once

// What nearly every test file needs: the test framework, the library's public headers, the common
// standard headers, the shared test helpers, and short names for the namespaces and types the
// tests use most. Anything rarer is included where it is used.

#include <foundation/core/except/Exception.hpp>
#include <foundation/core/except/ThrowInternal.hpp>
#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/msg_svc/eventmgr/EventMgr.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/FolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>
#include <foundation/storage/vfs.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/FileStream.hpp>
#include <foundation/storage/vfs/IODevice.hpp>
#include <foundation/storage/vfs/IOException.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>
#include <foundation/storage/vfs/detail/Logger.hpp>

#include <fl/i18n/ustring.hpp>

#include <DecoratedStorage.hpp>
#include <ExceptionCapture.hpp>
#include <ListingSupport.hpp>
#include <RecordingListener.hpp>
#include <StorageSystems.hpp>
#include <TempDir.hpp>
#include <Threads.hpp>
#include <WholeFile.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception/get_error_info.hpp>
#include <boost/exception_ptr.hpp>
#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/throw_exception.hpp>
#include <boost/variant/get.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <unordered_set>
#include <utility>
#include <vector>

#include <unistd.h>

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;
namespace decorators = foundation::storage::provider::decorators;
namespace events = foundation::storage::events;
namespace eventmgr = foundation::msg_svc::eventmgr;
namespace fs = std::filesystem;

using boost::posix_time::ptime;
using boost::posix_time::time_from_string;
using fl::i18n::ustring;
using foundation::core::except::IInternalException;
using provider::ExceptionContext;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;
using provider::ExtendedFeature;
using provider::ReplacementPolicy;
using provider::StorageIRI;
using provider::decorators::FaultInjectingProvider;
using provider::decorators::ProviderOperation;
using vfs::AbsoluteIRI;
using vfs::CanonicalAbsoluteIRI;
using vfs::DefaultStorageSystem;
using vfs::ErrorCode;
using vfs::File;
using vfs::FileEntry;
using vfs::Folder;
using vfs::FolderEntry;
using vfs::ListEntry;
using vfs_test::DecoratedStorage;
using vfs_test::nameOf;
using vfs_test::namesOf;
using vfs_test::WorkingFolder;
