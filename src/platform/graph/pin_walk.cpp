#include "platform/graph/pin_walk.h"

void ForEachPin(IBaseFilter* filter, const std::function<void(IPin*)>& visit) {
  ComPtr<IEnumPins> pins;
  if (FAILED(filter->EnumPins(pins.Put()))) {
    return;
  }
  ComPtr<IPin> pin;
  while (pins->Next(1, pin.Put(), nullptr) == S_OK) {
    visit(pin.Get());
  }
}

ComPtr<IPin> PeerOf(IPin* pin) {
  ComPtr<IPin> peer;
  pin->ConnectedTo(peer.Put());
  return peer;
}

bool IsOutput(IPin* pin) {
  PIN_DIRECTION direction{};
  return SUCCEEDED(pin->QueryDirection(&direction)) && direction == PINDIR_OUTPUT;
}

ComPtr<IBaseFilter> FilterOf(IPin* pin) {
  PIN_INFO info{};
  return pin != nullptr && SUCCEEDED(pin->QueryPinInfo(&info))
             ? ComPtr<IBaseFilter>::Adopt(info.pFilter)
             : nullptr;
}
