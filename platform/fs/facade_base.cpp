#include "platform/fs/facade_base.h"

#include "platform/core/error.h"

namespace Platform {

std::pair<std::string, std::string> FacadeBase::splitParent(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return {"/", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

bool FacadeBase::refuseIfReadOnly() const
{
    if (!readOnly())
        return false;
    Error::set(Error::ReadOnly);
    return true;
}

Ref<File> FacadeBase::openFile(const std::string& path, std::uint32_t flags)
{
    const Access access = (flags & OpenFlags::Write) != 0 ? Access::ReadWrite : Access::ReadOnly;
    if (access == Access::ReadWrite && refuseIfReadOnly())
        return {};
    Ref<File> file = openExisting(path, access);
    if (!file && (flags & OpenFlags::Create) != 0 && access == Access::ReadWrite &&
        Error::get() == Error::PathNotFound && createEmptyFile(path))
        file = openExisting(path, access);
    if (file && (flags & OpenFlags::Truncate) != 0 && file->resize(0) != 0) {
        if (Error::get() == Error::None)
            Error::set(Error::Io, "the file could not be emptied");
        return {};
    }
    return file;
}

bool FacadeBase::createDirectory(const std::string& path)
{
    return !refuseIfReadOnly() && makeDirectory(path);
}

bool FacadeBase::removeFile(const std::string& path)
{
    return !refuseIfReadOnly() && removeExisting(path);
}

bool FacadeBase::flush()
{
    return readOnly() || writeOut();
}

} // namespace Platform
