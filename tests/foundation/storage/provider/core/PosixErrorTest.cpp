#include <foundation/storage/provider/PosixError.hpp>

#include <ExceptionCapture.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

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

TEST(PosixErrorTest, ErrnoNamesAreTheSymbolicNames)
{
    struct Case {
        int error;
        const char* name;
    };
    for (const Case& c : {Case{ENOENT, "ENOENT"},         Case{EACCES, "EACCES"},   Case{EPERM, "EPERM"},
                          Case{EEXIST, "EEXIST"},         Case{ENOTDIR, "ENOTDIR"}, Case{EISDIR, "EISDIR"},
                          Case{ENOTEMPTY, "ENOTEMPTY"},   Case{ENOSPC, "ENOSPC"},   Case{EDQUOT, "EDQUOT"},
                          Case{EROFS, "EROFS"},           Case{EFBIG, "EFBIG"},     Case{EBUSY, "EBUSY"},
                          Case{ETXTBSY, "ETXTBSY"},       Case{EIO, "EIO"},         Case{ENAMETOOLONG, "ENAMETOOLONG"},
                          Case{EINVAL, "EINVAL"},         Case{ELOOP, "ELOOP"},     Case{ENOSYS, "ENOSYS"},
                          Case{EOPNOTSUPP, "EOPNOTSUPP"}, Case{ENOMEM, "ENOMEM"},   Case{EMFILE, "EMFILE"},
                          Case{ENFILE, "ENFILE"},         Case{EXDEV, "EXDEV"},     Case{EBADF, "EBADF"},
                          Case{EINTR, "EINTR"},           Case{EAGAIN, "EAGAIN"},   Case{ENODATA, "ENODATA"}}) {
        EXPECT_STREQ(errnoName(c.error), c.name);
    }
    EXPECT_STREQ(errnoName(99999), "E99999");
    EXPECT_STREQ(errnoName(-3), "E-3");
    EXPECT_STREQ(errnoName(0), "E0");
}

TEST(PosixErrorTest, PosixErrorCarriesCodeLocationCallErrnoAndMessage)
{
    const StorageIRI location(u"file:///some/where");
    const Exception error = posixError(EACCES, "openat", location);

    EXPECT_EQ(error.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(error.getStorageIRI() == location);
    ASSERT_EQ(error.getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(error.getAllExceptionContexts()[0].getExceptionContextKey(), u"openat");
    EXPECT_EQ(error.getAllExceptionContexts()[1].getExceptionContextKey(), u"EACCES");
    EXPECT_EQ(error.getMessage(), fl::i18n::utf8_to_ustring(std::strerror(EACCES)));
}

TEST(PosixErrorTest, ThrowPosixErrorThrowsTheSameException)
{
    const StorageIRI location(u"file:///missing");
    vfs_test::inspectThrown<Exception>([&] { throwPosixError(ENOENT, "stat", location); }, [&](const Exception& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::ResourceNotFound);
        EXPECT_TRUE(error.getStorageIRI() == location);
        EXPECT_EQ(error.getAllExceptionContexts(), posixError(ENOENT, "stat", location).getAllExceptionContexts());
    });
}

} // namespace
