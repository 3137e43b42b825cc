#include <foundation/storage/provider/PosixError.hpp>

#include <Prelude.hpp>

namespace {

using Code = provider::ErrorCode;

using namespace foundation::storage::provider;

TEST(PosixErrorTest, ErrnoValuesTranslateToTheirProviderCode)
{
    struct Case {
        int error;
        Code code;
    };
    for (const Case& c : {
             Case{ENOENT, Code::ResourceNotFound},      Case{ENOTDIR, Code::ResourceNotFound},
             Case{EISDIR, Code::ResourceNotFound},      Case{EXDEV, Code::UnsupportedOperation},
             Case{EACCES, Code::PermissionDenied},      Case{EPERM, Code::PermissionDenied},
             Case{EEXIST, Code::ResourceAlreadyExists}, Case{ENOTEMPTY, Code::FolderNotEmpty},
             Case{ENOSPC, Code::NoSpaceLeft},           Case{EDQUOT, Code::NoSpaceLeft},
             Case{EROFS, Code::ReadOnlyProvider},       Case{EFBIG, Code::FileTooLarge},
             Case{EBUSY, Code::ResourceInUse},          Case{ETXTBSY, Code::ResourceInUse},
             Case{EIO, Code::IOError},                  Case{ENAMETOOLONG, Code::InvalidLocation},
             Case{EINVAL, Code::InvalidLocation},       Case{ELOOP, Code::InvalidLocation},
             Case{ENOSYS, Code::UnsupportedOperation},  Case{EOPNOTSUPP, Code::UnsupportedOperation},
             Case{ENOTSUP, Code::UnsupportedOperation}, Case{ENOMEM, Code::InternalError},
             // Everything else is Unknown, never a guess.
             Case{EMFILE, Code::Unknown},               Case{EBADF, Code::Unknown},
             Case{EINTR, Code::Unknown},                Case{EAGAIN, Code::Unknown},
             Case{0, Code::Unknown},                    Case{-1, Code::Unknown},
             Case{99999, Code::Unknown},
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
    EXPECT_EQ(error.getErrorCode(), Code::PermissionDenied);
    EXPECT_TRUE(error.getStorageIRI() == location);
    ASSERT_EQ(error.getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(error.getAllExceptionContexts()[0].getExceptionContextKey(), u"openat");
    EXPECT_EQ(error.getAllExceptionContexts()[1].getExceptionContextKey(), u"EACCES");
    EXPECT_EQ(error.getMessage(), fl::i18n::utf8_to_ustring(std::strerror(EACCES)));

    vfs_test::inspectThrown<Exception>([&] { throwPosixError(EACCES, "openat", location); }, [&](const Exception& thrown) {
        EXPECT_EQ(thrown.getErrorCode(), Code::PermissionDenied);
        EXPECT_TRUE(thrown.getStorageIRI() == location);
        EXPECT_EQ(thrown.getAllExceptionContexts(), error.getAllExceptionContexts());
    });
}

} // namespace
