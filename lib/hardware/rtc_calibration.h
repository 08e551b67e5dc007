// Trimming the real-time clock's oscillator.
#pragma once

// Held by main() while the player runs: a board whose real-time clock can be trimmed learns its
// drift from the network's time meanwhile.
class RTCCalibration {
 public:
  virtual ~RTCCalibration() = default;
};

// For boards without that, which today are all of them.
class RTCCalibrationDummyImpl final : public RTCCalibration {};
