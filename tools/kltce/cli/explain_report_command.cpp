#include "tools/kltce/cli/explain_report_command.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace kltce {

ReportTrace::ReportTrace(std::ostream* passOn) : std::ostream(nullptr) {
  buffer_.passOn = passOn;
  rdbuf(&buffer_);
}

ReportTrace::Buffer::int_type ReportTrace::Buffer::overflow(int_type ch) {
  if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
  const char c = traits_type::to_char_type(ch);
  return xsputn(&c, 1) == 1 ? ch : traits_type::eof();
}

std::streamsize ReportTrace::Buffer::xsputn(const char* data, std::streamsize size) {
  text.append(data, static_cast<std::size_t>(size));
  if (passOn) passOn->write(data, size);
  return size;
}

int ReportTrace::Buffer::sync() {
  if (passOn) passOn->flush();
  return passOn && !*passOn ? -1 : 0;
}

bool writeExplainReport(const std::string& path, const ReportTrace& trace, const std::vector<CampaignOutcome>& outcomes,
                        const ExplainReportFacts& facts, std::ostream& err) {
  std::ofstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (file) file << explainReportHtml(trace.text(), outcomes, facts);
  file.close();
  if (!file) {
    err << "kltce: --html: cannot write '" << path << "': " << std::strerror(errno) << '\n';
    return false;
  }
  return true;
}

}  // namespace kltce
