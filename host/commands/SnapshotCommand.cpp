#include "capture/FrameGrabber.h"
#include "capture/SourceSettings.h"
#include "capture/Sources.h"
#include "commands/Commands.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "picture/ImageFile.h"
#include "record/OutputFile.h"

namespace brvhost {

namespace {

constexpr double FrameTimeoutSeconds = 5;
constexpr int SnapshotFrame = 5;  // cameras settle their exposure meanwhile

}  // namespace

void takeSnapshot(const brv::Library& library, const Options& options, std::ostream& out) {
  const brv::Source source = findSource(library, options.source);
  if (!source.hasVideo()) throw Failure(source.id() + " has no picture");
  requireSettings(library, source, options.settings);
  const brv::Frame frame = grabFrame(library, source, SnapshotFrame, FrameTimeoutSeconds);
  if (!frame) {
    if (Interrupt::requested()) throw Failure("interrupted");
    requirePluggedIn(source);
    const std::string error = source.error();
    throw Failure(formatted("no picture came from %s within %g seconds", source.id().c_str(), FrameTimeoutSeconds) +
                  (error.empty() ? "" : ": " + error));
  }

  const brv::Pixels pixels = frame.pixels();
  const RGBImage image =
      withSquarePixels(convertToRGB(viewOf(pixels), colorMatrix(frame.pixelBuffer())), pixelAspectOf(frame));
  const std::vector<std::uint8_t> bytes = encoded(image, imageFormatOf(options.output));
  if (options.output == "-") {
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return;
  }
  OutputFile file(options.output);
  file.write(bytes.data(), bytes.size());
  file.close();
  out << formatted("%s: %zu x %zu", options.output.c_str(), image.width, image.height) << "\n";
}

}  // namespace brvhost
