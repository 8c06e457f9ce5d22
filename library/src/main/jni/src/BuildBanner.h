// The engine's build banner: eight info lines logged once when the engine is constructed.
#pragma once

namespace qlmr {

// Build platform label printed by the banner.
constexpr const char* kBuildPlatform = "oem_qcom8976_board_O";

// Logs the eight "[VStab] Built ..." lines at info priority under the engine's tag.
void logBuildBanner();

}  // namespace qlmr
