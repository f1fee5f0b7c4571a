#pragma once

#include "ax/rendering/IAborter.h"

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace Axr {

/// Wall-clock milliseconds from `start` to now: how the tool times its work.
[[nodiscard]] inline double MillisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

/// A progress bar on one terminal line, for work that takes more than a second:
/// nothing is drawn before then, nor at all when it is off (stderr not a terminal,
/// or --quiet). It is driven by the renderers' step protocol: the render polls it as
/// its aborter before every step, and each finished piece of work advances it.
class Progress final : public Ax::Rendering::IAborter {
public:
    /// `total` pieces of work, e.g. renders.
    Progress(std::ostream& out, std::string label, std::int64_t total, bool enabled);
    ~Progress() override;
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// One piece of work done.
    void Advance();
    /// A step of the current piece; never aborts.
    [[nodiscard]] bool HasAborted() override;

    /// On when not quiet and stderr is a terminal.
    [[nodiscard]] static bool WantedOnStderr(bool quiet) noexcept;

private:
    void Draw();

    std::ostream& m_out;
    std::string m_label;
    std::int64_t m_total, m_done = 0, m_steps = 0;
    bool m_enabled, m_drawn = false;
    std::chrono::steady_clock::time_point m_start, m_lastDraw;
};

}  // namespace Axr
