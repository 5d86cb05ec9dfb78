// SPDX-License-Identifier: Apache-2.0
// The C++ side of the parameter segment list: an owning walker that hands
// each segment's arguments to a callback.
#ifndef KELA_SEGMENTS_HPP
#define KELA_SEGMENTS_HPP

#include <cstdint>
#include <memory>

#include "kela_shared.h"

namespace kela {

// How a walk over segments of one expected width ended.
enum class WalkEnd {
    Complete,  // no further segment
    Mismatch,  // a segment of another width
    Stopped,   // the callback failed
};

class Segments {
  public:
    Segments(std::uint32_t count, char **params) : sl_(kel_shared_sl_create(count, params)) {}
    // False when no list can be made of the vector.
    explicit operator bool() const { return sl_ != nullptr; }

    // Calls fn(args) with the argument texts of each segment, from the first,
    // while segments hold exactly `width` arguments.  fn returns a status; the
    // first non-zero one stops the walk and is stored in *status.
    template <typename Fn>
    WalkEnd each(std::int32_t width, Fn &&fn, vogno *status) {
        *status = 0;
        kel_shared_sl_td *sl = sl_.get();
        for (std::int32_t k = sl->seg_end - sl->seg_start - 1;;
             k = kel_shared_sl_segment_next(sl)) {
            if (k != width) return k == -1 ? WalkEnd::Complete : WalkEnd::Mismatch;
            if ((*status = fn(sl->vector + sl->seg_start + 1)) != 0) return WalkEnd::Stopped;
        }
    }

  private:
    struct Destroy {
        void operator()(kel_shared_sl_td *sl) const noexcept { kel_shared_sl_destroy(sl); }
    };
    std::unique_ptr<kel_shared_sl_td, Destroy> sl_;
};

}  // namespace kela

#endif  // KELA_SEGMENTS_HPP
