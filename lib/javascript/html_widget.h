// Pages on the display, each in a widget that the renderer draws.
#pragma once

#include <map>
#include <memory>
#include <string>

struct HtmlWidgetParameters {
  bool mouse_events = false;
  bool scrollbars = false;
  bool javascript = true;
};

// Hears of what the page in a widget does.
class HtmlWidgetEventHandler {
 public:
  // The event's fields; "reason" is one of them, the others depend on it. Any thread, no lock held.
  virtual void OnHtmlWidgetEvent(const std::map<std::string, std::string>& event) = 0;

 protected:
  ~HtmlWidgetEventHandler() = default;
};

class HtmlWidget {
 public:
  // Takes the page off the display. The handler is not called any more when this returns.
  virtual ~HtmlWidget() = default;
  // Shows a page. False when the renderer refuses it.
  virtual bool SetUrl(const std::string& url) = 0;
};

// The handler must outlive the widget. Null without a renderer; none is part of this system yet.
std::shared_ptr<HtmlWidget> CreateHtmlWidget(const HtmlWidgetParameters& parameters,
                                             HtmlWidgetEventHandler& handler);
