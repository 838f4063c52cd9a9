#include <windows.h>

#include "trace/MappedFile.h"
#include "trace/UniqueHandle.h"

MappedFile::MappedFile(const std::string& path) {
    const UniqueHandle file(CreateFileA(
        path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    LARGE_INTEGER size{};
    if (file.Get() == INVALID_HANDLE_VALUE || !GetFileSizeEx(file.Get(), &size)) {
        error_ = "cannot open " + path;
        return;
    }
    if (size.QuadPart == 0) {
        return;
    }
    // The view outlives both handles.
    const UniqueHandle mapping(
        CreateFileMappingW(file.Get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    const void* view = mapping ? MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0) : nullptr;
    if (view == nullptr) {
        error_ = "cannot read " + path;
        return;
    }
    data_ = static_cast<const uint8_t*>(view);
    size_ = static_cast<size_t>(size.QuadPart);
}

MappedFile::~MappedFile() {
    if (data_ != nullptr) {
        UnmapViewOfFile(data_);
    }
}
