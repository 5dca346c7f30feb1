// A compiled packet filter (pcap-filter(7)) for Ethernet frames. One thread.
#pragma once

#include <memory>
#include <string>

#include "packet/frame.h"

struct bpf_program;

namespace tarnik::brund {

class Filter {
 public:
  // Empty, with the compiler's reason in `error`, when `text` does not compile.
  [[nodiscard]] static Filter compile(const std::string& text, std::string& error);

  [[nodiscard]] explicit operator bool() const { return program_ != nullptr; }
  // Whether the frame passes. The filter must not be empty.
  [[nodiscard]] bool matches(const Frame& frame) const;

 private:
  struct Release {
    void operator()(bpf_program* program) const noexcept;
  };
  std::unique_ptr<bpf_program, Release> program_;
};

}  // namespace tarnik::brund
