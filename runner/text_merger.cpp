#include "text_merger.h"

#include <utility>

namespace vask::runner {

void text_merger::add(std::size_t chunk, std::vector<std::string_view> texts,
                      std::shared_ptr<const char[]> memory) {
    const std::scoped_lock lock(mutex_);
    early_.emplace(chunk, early_chunk{std::move(texts), std::move(memory)});
    for (auto first = early_.begin(); first != early_.end() && first->first == next_; ++next_) {
        builder_.append_all(first->second.texts);
        first = early_.erase(first);
    }
}

} // namespace vask::runner
