#include <foundation/core/except/Exception.hpp>

namespace foundation::core::except {

IException::~IException() noexcept = default;

ustring IException::ToUstringImpl() const
{
    if (const auto* standard = dynamic_cast<const std::exception*>(this))
        return fl::i18n::utf8_to_ustring_lossy(standard->what());
    return u"Unknown exception";
}

IInternalException::~IInternalException() noexcept = default;

} // namespace foundation::core::except
