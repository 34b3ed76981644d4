#include "reports/report_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zel::tc {

namespace {

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool canWriteReport(const std::string& path, std::string& error) {
    struct stat about {};
    const std::string folder = folderOf(path);
    if (path.empty() || path.back() == '/') {
        error = "cannot write a report to '" + path + "': not a file name";
    } else if (stat(path.c_str(), &about) == 0 && !S_ISREG(about.st_mode)) {
        error = "cannot write a report to " + path + ": not a regular file";
    } else if (stat(folder.c_str(), &about) != 0 || !S_ISDIR(about.st_mode)) {
        error = "cannot write a report to " + path + ": no folder " + folder;
    } else if (access(folder.c_str(), W_OK | X_OK) != 0) {
        error = "cannot write a report to " + path + ": " + std::strerror(errno);
    } else {
        return true;
    }
    return false;
}

bool writeReport(const std::string& path, const std::string& content) {
    std::string temporary = folderOf(path) + "/.zel-tc-report-XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return false;
    // mkostemp makes the file 0600; a report is as readable as any file the user makes.
    const mode_t mask = umask(0);
    umask(mask);
    bool written = fchmod(fd, 0666 & ~mask) == 0;
    for (size_t done = 0; written && done < content.size();) {
        const ssize_t got = write(fd, content.data() + done, content.size() - done);
        if (got < 0 && errno == EINTR) continue;
        written = got > 0;
        if (written) done += static_cast<size_t>(got);
    }
    written = close(fd) == 0 && written;
    if (written && rename(temporary.c_str(), path.c_str()) == 0) return true;
    unlink(temporary.c_str());
    return false;
}

}  // namespace zel::tc
