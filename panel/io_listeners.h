#pragma once
// Listener interfaces of the I/O points. A listener is told about a point's
// new value by the point's updater (or at once, in the thread that set the
// value, for a point without history).
class IOPoint;
class DigitalInput;
class MultiDigitalInput;

class IOPointEventListener {
  public:
    virtual ~IOPointEventListener() = default;
    virtual int newValue(IOPoint* point) {
        (void)point;
        return 0;
    }
};

class DigitalInputEventListener : public IOPointEventListener {
  public:
    using IOPointEventListener::newValue;
    virtual void newValue(DigitalInput* input, bool level) = 0;
};

class MultiDIEventListener : public IOPointEventListener {
  public:
    using IOPointEventListener::newValue;
    virtual void newValue(MultiDigitalInput* input, int value) = 0;
};
