// Recycled panel memory of the local backtester.
//
// Every materialised panel is a few megabytes. Freshly mapped memory is faulted in and zeroed page by page,
// which costs more than most operators and serialises threads on the address-space lock; so the memory of
// panels that nobody holds any more is kept, up to kPoolBytes, for the next panel of the same size. Each
// block carries its size in a header. The lock guards only the list; nothing under it calls Python.
#pragma once
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace quillmarsh::local {

class PanelPool {
 public:
  static constexpr size_t kPoolBytes = size_t(128) << 20;
  static constexpr size_t kHeader = 64;  // keeps the data 64-byte aligned

  double* take(size_t bytes) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      for (size_t i = free_.size(); i-- > 0;) {
        if (size_of(free_[i]) != bytes) continue;
        char* block = free_[i];
        free_.erase(free_.begin() + std::ptrdiff_t(i));
        kept_ -= bytes;
        return data_of(block);
      }
    }
    char* block = static_cast<char*>(std::aligned_alloc(kHeader, kHeader + (bytes + kHeader - 1) / kHeader * kHeader));
    if (!block) throw std::bad_alloc();
    std::memcpy(block, &bytes, sizeof bytes);
    return data_of(block);
  }

  void give(double* data) {
    char* block = reinterpret_cast<char*>(data) - kHeader;
    const size_t bytes = size_of(block);
    {
      std::lock_guard<std::mutex> hold(mu_);
      if (kept_ + bytes <= kPoolBytes) {
        free_.push_back(block);
        kept_ += bytes;
        return;
      }
    }
    std::free(block);
  }

 private:
  static size_t size_of(const char* block) {
    size_t bytes;
    std::memcpy(&bytes, block, sizeof bytes);
    return bytes;
  }
  static double* data_of(char* block) { return reinterpret_cast<double*>(block + kHeader); }

  std::mutex mu_;
  std::vector<char*> free_;
  size_t kept_ = 0;
};

inline PanelPool& panel_pool() {
  static PanelPool* p = new PanelPool();  // never destroyed: arrays may outlive the module's teardown
  return *p;
}

// A panel of T x N cells from the pool, returned to it when the last holder lets go.
struct PanelBuffer {
  double* data;
  size_t cells;
  explicit PanelBuffer(size_t n) : data(panel_pool().take(n * sizeof(double))), cells(n) {}
  ~PanelBuffer() { panel_pool().give(data); }
  PanelBuffer(const PanelBuffer&) = delete;
  PanelBuffer& operator=(const PanelBuffer&) = delete;
};
using PanelPtr = std::shared_ptr<PanelBuffer>;

}  // namespace quillmarsh::local
