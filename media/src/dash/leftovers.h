// The ids of tracks that media::dash packs, and what a run that was killed has left under them.
#pragma once

#include "core/owned.h"

#include <cstdint>

namespace media {

/// NAME-NUMBER-WHICH-TIME. Another run has other ids: what a cache has kept of this one is not taken for it.
core::owned_text dash_id(const char* name, uint32_t number, uint64_t which) noexcept;

/// Removes the segments of earlier runs of that number from ./temp, and their folders. Before any context is opened.
void remove_leftovers(uint32_t number) noexcept;

}  // namespace media
