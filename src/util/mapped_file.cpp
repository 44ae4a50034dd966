#include "util/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace krel {

mapped_file::~mapped_file() { close(); }

void mapped_file::close() {
    if (map_) munmap(map_, size_);
    map_ = nullptr;
    data_ = nullptr;
    size_ = 0;
}

bool mapped_file::open(const std::string& file) {
    close();
    const int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return false;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return false;
    }
    size_ = static_cast<std::size_t>(st.st_size);
    if (size_ > 0) {
        void* p = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p == MAP_FAILED) {
            ::close(fd);
            size_ = 0;
            return false;
        }
        madvise(p, size_, MADV_SEQUENTIAL | MADV_WILLNEED);
        map_ = p;
        data_ = static_cast<const char*>(p);
    }
    ::close(fd);
    return true;
}

std::size_t split_at_lines(std::string_view text, std::size_t parts, std::size_t* bounds) {
    parts = std::max<std::size_t>(1, std::min(parts, text.size() / 65536 + 1));
    bounds[0] = 0;
    std::size_t k = 1;
    for (; k < parts; ++k) {
        std::size_t at = std::max(bounds[k - 1], text.size() * k / parts);
        const auto nl = text.find('\n', at);
        if (nl == std::string_view::npos) break;
        bounds[k] = nl + 1;
    }
    bounds[k] = text.size();
    return k;
}

}  // namespace krel
