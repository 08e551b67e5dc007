#include "lib/javascript/html_renderer_launcher.h"

namespace {

class NoRendererLauncher final : public HtmlRendererLauncher {
 public:
  void EndRenderer() override {}
  void OnMemoryPressure(MemoryPressure) override {}
};

}  // namespace

std::unique_ptr<HtmlRendererLauncher> CreateHtmlRendererLauncher() {
  return std::make_unique<NoRendererLauncher>();
}
