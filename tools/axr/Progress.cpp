#include "Progress.h"

#include <unistd.h>

#include <algorithm>

namespace Axr {

namespace {

constexpr auto kQuietTime = std::chrono::seconds(1);
constexpr auto kRedrawTime = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

}  // namespace

Progress::Progress(std::ostream& out, std::string label, std::int64_t total, bool enabled)
    : m_out(out), m_label(std::move(label)), m_total(std::max<std::int64_t>(total, 1)), m_enabled(enabled),
      m_start(std::chrono::steady_clock::now())
{
}

Progress::~Progress()
{
    if (m_drawn)
        m_out << "\r\033[K" << std::flush;  // leave the line as it was for what follows
}

void Progress::Advance()
{
    ++m_done;
    Draw();
}

bool Progress::HasAborted()
{
    ++m_steps;
    Draw();
    return false;
}

bool Progress::WantedOnStderr(bool quiet) noexcept { return !quiet && isatty(STDERR_FILENO) == 1; }

void Progress::Draw()
{
    if (!m_enabled)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_start < kQuietTime || (m_drawn && now - m_lastDraw < kRedrawTime))
        return;
    m_lastDraw = now;
    m_drawn = true;
    const auto filled = static_cast<int>(kBarWidth * std::min(m_done, m_total) / m_total);
    static constexpr char kSpinner[] = {'|', '/', '-', '\\'};
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    m_out << '\r' << m_label << " [" << std::string(static_cast<std::size_t>(filled), '#')
          << std::string(static_cast<std::size_t>(kBarWidth - filled), '.') << "] " << m_done << '/' << m_total << ' '
          << kSpinner[m_steps % 4] << ' ' << static_cast<int>(seconds) << " s" << std::flush;
}

}  // namespace Axr
