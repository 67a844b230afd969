// An output written under a temporary name beside its final one and renamed
// only when complete, so that a failed or cancelled run leaves no file.
#pragma once

#include <weftmap/host/export.hpp>

#include <string>

namespace WM::host {

class WEFTMAP_HOST_API OutputFile {
public:
    // Creates the temporary file at once, so that an unwritable place fails
    // before any work. Throws Error (output_failed).
    explicit OutputFile(std::string path);
    // Removes the temporary file unless committed.
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    std::string const& path() const { return path_; }
    std::string const& temporary_path() const { return temporary_; }
    // Renames the temporary file to the final name.
    void commit();

private:
    std::string path_;
    std::string temporary_;
    bool committed_ = false;
};

}  // namespace WM::host
