#include "tools/play/report_listener.h"

#include "driver/trace/identifiers.h"

namespace play {

bool ReportListener::IsWanted(const PlayOptions& options)
{
    return options.eventLevel || options.traceMessages || !options.capture.empty();
}

ReportListener::ReportListener(const PlayOptions& options, host::tracing::Tracing& tracing, Timeline& timeline)
    : tracing_(tracing), manifest_(options.decodingFiles / "zepn.man"), formats_(options.decodingFiles),
      options_(options), timeline_(timeline)
{
    const bool captures = !options.capture.empty();
    if (captures) {
        capture_ = std::make_unique<host::tracing::CaptureWriter>(options.capture);
    }
    tracing_.SetListener(this);
    if (options.eventLevel || captures) {
        const std::uint8_t level = captures ? std::uint8_t{0} : *options.eventLevel;
        tracing_.OpenEventSession({manifest_.provider(), level});
    }
    if (options.traceMessages || captures) {
        tracing_.OpenMessageSession({kControlGuid, 5, 3});
    }
}

ReportListener::~ReportListener()
{
    tracing_.SetListener(nullptr);
}

void ReportListener::Finish()
{
    if (capture_) {
        capture_->Finish();
    }
}

void ReportListener::OnEvent(const host::tracing::CapturedEvent& event)
{
    if (capture_) {
        capture_->Write(event);
    }
    // The session of a capture takes every level.
    if (!options_.eventLevel || (*options_.eventLevel != 0 && event.descriptor.Level > *options_.eventLevel)) {
        return;
    }
    const auto decoded = manifest_.Decode(event);
    timeline_.Add({EntryKind::kReport, "event " + std::to_string(event.descriptor.Id), "",
                   decoded ? decoded->message : "(cannot be decoded)", "", true});
}

void ReportListener::OnMessage(const host::tracing::CapturedMessage& message)
{
    if (capture_) {
        capture_->Write(message);
    }
    if (!options_.traceMessages) {
        return;
    }
    const auto decoded = formats_.Decode(message);
    timeline_.Add({EntryKind::kReport, "trace " + std::to_string(message.number), "",
                   decoded ? decoded->function + ": " + decoded->text : "(cannot be decoded)", "", true});
}

}  // namespace play
