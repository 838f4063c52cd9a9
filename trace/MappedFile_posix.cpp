#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "trace/MappedFile.h"

namespace {

// Populating at once saves a page fault for every page the reader touches.
#ifdef MAP_POPULATE
constexpr int kMapFlags = MAP_PRIVATE | MAP_POPULATE;
#else
constexpr int kMapFlags = MAP_PRIVATE;
#endif

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int Get() const { return fd_; }

  private:
    int fd_;
};

}  // namespace

MappedFile::MappedFile(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        error_ = "cannot open " + path;
        return;
    }
    if (status.st_size == 0) {
        return;
    }
    // The mapping outlives the descriptor.
    void* view =
        mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, kMapFlags, file.Get(), 0);
    if (view == MAP_FAILED) {
        error_ = "cannot read " + path;
        return;
    }
    data_ = static_cast<const uint8_t*>(view);
    size_ = static_cast<size_t>(status.st_size);
}

MappedFile::~MappedFile() {
    if (data_ != nullptr) {
        munmap(const_cast<uint8_t*>(data_), size_);
    }
}
