#include <foundation/storage/provider/PosixError.hpp>

#include <ExceptionCapture.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace {

using namespace foundation::storage::provider;

TEST(PosixErrorTest, ErrnoValuesTranslateToTheirProviderCode)
{
    struct Case {
        int error;
        ErrorCode code;
    };
    for (const Case& c : {
             Case{ENOENT, ErrorCode::ResourceNotFound},      Case{ENOTDIR, ErrorCode::ResourceNotFound},
             Case{EISDIR, ErrorCode::ResourceNotFound},      Case{EXDEV, ErrorCode::UnsupportedOperation},
             Case{EACCES, ErrorCode::PermissionDenied},      Case{EPERM, ErrorCode::PermissionDenied},
             Case{EEXIST, ErrorCode::ResourceAlreadyExists}, Case{ENOTEMPTY, ErrorCode::FolderNotEmpty},
             Case{ENOSPC, ErrorCode::NoSpaceLeft},           Case{EDQUOT, ErrorCode::NoSpaceLeft},
             Case{EROFS, ErrorCode::ReadOnlyProvider},       Case{EFBIG, ErrorCode::FileTooLarge},
             Case{EBUSY, ErrorCode::ResourceInUse},          Case{ETXTBSY, ErrorCode::ResourceInUse},
             Case{EIO, ErrorCode::IOError},                  Case{ENAMETOOLONG, ErrorCode::InvalidLocation},
             Case{EINVAL, ErrorCode::InvalidLocation},       Case{ELOOP, ErrorCode::InvalidLocation},
             Case{ENOSYS, ErrorCode::UnsupportedOperation},  Case{EOPNOTSUPP, ErrorCode::UnsupportedOperation},
             Case{ENOTSUP, ErrorCode::UnsupportedOperation}, Case{ENOMEM, ErrorCode::InternalError},
             // Everything else is Unknown, never a guess.
             Case{EMFILE, ErrorCode::Unknown},               Case{EBADF, ErrorCode::Unknown},
             Case{EINTR, ErrorCode::Unknown},                Case{EAGAIN, ErrorCode::Unknown},
             Case{0, ErrorCode::Unknown},                    Case{-1, ErrorCode::Unknown},
             Case{99999, ErrorCode::Unknown},
         }) {
        EXPECT_EQ(errorCodeFromErrno(c.error), c.code) << errnoName(c.error);
    }
}

TEST(PosixErrorTest, ErrnoNamesAreTheSymbolicNamesOrTheNumber)
{
    for (const auto& [error, name] : {std::pair{ENOENT, "ENOENT"}, std::pair{EACCES, "EACCES"},
                                      std::pair{EDQUOT, "EDQUOT"}, std::pair{EOPNOTSUPP, "EOPNOTSUPP"},
                                      std::pair{ENODATA, "ENODATA"}, std::pair{99999, "E99999"},
                                      std::pair{-3, "E-3"}, std::pair{0, "E0"}})
        EXPECT_STREQ(errnoName(error), name);
}

TEST(PosixErrorTest, PosixErrorCarriesCodeLocationCallErrnoAndMessageAndIsWhatIsThrown)
{
    const StorageIRI location(u"file:///some/where");
    const Exception error = posixError(EACCES, "openat", location);
    EXPECT_EQ(error.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(error.getStorageIRI() == location);
    ASSERT_EQ(error.getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(error.getAllExceptionContexts()[0].getExceptionContextKey(), u"openat");
    EXPECT_EQ(error.getAllExceptionContexts()[1].getExceptionContextKey(), u"EACCES");
    EXPECT_EQ(error.getMessage(), fl::i18n::utf8_to_ustring(std::strerror(EACCES)));

    vfs_test::inspectThrown<Exception>([&] { throwPosixError(EACCES, "openat", location); }, [&](const Exception& thrown) {
        EXPECT_EQ(thrown.getErrorCode(), ErrorCode::PermissionDenied);
        EXPECT_TRUE(thrown.getStorageIRI() == location);
        EXPECT_EQ(thrown.getAllExceptionContexts(), error.getAllExceptionContexts());
    });
}

} // namespace
