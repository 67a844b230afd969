#include <weftmap/host/errors.hpp>
#include <weftmap/host/output_file.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace WM::host {

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
    struct stat existing = {};
    if (stat(path_.c_str(), &existing) == 0 && S_ISDIR(existing.st_mode))
        throw Error(ErrorCode::output_failed, "cannot write '" + path_ + "': it is a directory");
    std::string pattern = path_ + ".weftmap-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int const fd = mkstemp(name.data());
    if (fd < 0)
        throw Error(ErrorCode::output_failed,
                    "cannot write '" + path_ + "': " + std::strerror(errno));
    // mkstemp makes the file private; the result gets the usual permissions.
    mode_t const mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    close(fd);
    temporary_ = name.data();
}

OutputFile::~OutputFile() {
    if (!committed_) std::remove(temporary_.c_str());
}

void OutputFile::commit() {
    if (std::rename(temporary_.c_str(), path_.c_str()) != 0)
        throw Error(ErrorCode::output_failed,
                    "cannot write '" + path_ + "': " + std::strerror(errno));
    committed_ = true;
}

}  // namespace WM::host
