// `kltce run --explain --html FILE`: gathers what the HTML page of one device's replay is made of
// while the replay runs, and writes the page after it (explain_html.h).
//
// ReportTrace is the trace stream the replay writes its decision records to: it keeps their text
// for the page and passes every byte on, unchanged and at once, to `--trace`'s file when there is
// one, so that file is the same as without --html.
//
// Not thread-safe: the replay writes the records from the engine's queue while the calling thread
// waits; read text() only after the replay.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "tools/kltce/replay/explain.h"
#include "tools/kltce/report/explain_html.h"

namespace kltce {

class ReportTrace final : public std::ostream {
 public:
  explicit ReportTrace(std::ostream* passOn);
  const std::string& text() const { return buffer_.text; }

 private:
  struct Buffer final : std::streambuf {
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const char* data, std::streamsize size) override;
    int sync() override;
    std::ostream* passOn = nullptr;
    std::string text;
  };
  Buffer buffer_;
};

// Writes the page to path; false, with one line on err, when it cannot be written.
bool writeExplainReport(const std::string& path, const ReportTrace& trace, const std::vector<CampaignOutcome>& outcomes,
                        const ExplainReportFacts& facts, std::ostream& err);

}  // namespace kltce
