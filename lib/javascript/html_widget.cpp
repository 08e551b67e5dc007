#include "lib/javascript/html_widget.h"

std::shared_ptr<HtmlWidget> CreateHtmlWidget(const HtmlWidgetParameters&, HtmlWidgetEventHandler&) {
  return nullptr;
}
