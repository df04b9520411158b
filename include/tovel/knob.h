#pragma once
// Tovel front-panel knob: a rotary encoder turned into a bounded counter.
//
// Compile and link with:  pkg-config --cflags --libs tovelpanel
//
// The unit root. Knobs, like the unit's own program `tovel`, live on a unit
// root: the folder that stands for the unit's file system. A program finds
// it the way `tovel` does: setUnitRoot() below when it is called first,
// otherwise the environment variable TOVEL_ROOT, otherwise "unit" in the
// working folder. On one root, a knob on the counter chip hears the chip's
// count through the named event "RotaryEvent", which every process on that
// root shares: a program using this library on the root of a running unit
// follows the knob that `tovelsim knob DELTA` turns there.
//
// A knob counts between a lower and an upper bound in steps of its increment
// and tells its listeners the new count, at most once every 50 ms however
// fast it turns. A client that needs the knob for a while (an edit field, say)
// takes the focus with a range of its own and gets the previous range and
// count back when it releases it.
#include <cstdint>
#include <memory>
#include <string>

class Knob;  // the panel's knob, behind tovel::Knob

namespace tovel {

// A digital input line that the program drives: a knob on two of them
// decodes their levels as a quadrature (Gray-code) signal. The program reads
// its lines wherever they are and hands each new level to setValue.
class DigitalInput {
  public:
    // `activeLevel` true: a positive raw level is on; false: zero is on.
    explicit DigitalInput(bool activeLevel = true);
    ~DigitalInput();
    // A knob holds the input's address, so it stays where it was made.
    DigitalInput(const DigitalInput&) = delete;
    DigitalInput& operator=(const DigitalInput&) = delete;

    // A new raw level. A knob on this line hears a change at once, in the
    // calling thread; set the two lines of one knob from one thread.
    void setValue(int raw);
    // Whether the last level set was on (false before the first).
    bool isOn() const;

  private:
    friend class Knob;
    struct Line;
    std::unique_ptr<Line> line_;
};

// What a knob tells about its count. Implement it and register it with
// Knob::addListener, or hand it to Knob::takeFocus.
class KnobEventListener {
  public:
    virtual ~KnobEventListener() = default;
    // The count changed. Called from one of the knob's own threads, never two
    // at a time. `rate` is reserved and always 0.
    virtual void newValue(int count, float rate) = 0;
};

// A knob owns its threads and its source, so it can be moved but not copied:
// a member-wise copy would own the same threads and release them twice.
// A moved-from knob answers 0 and false and ignores every request.
class Knob {
  public:
    // An encoder on two lines that are read from two device files (a nonzero
    // first byte means the line is set). Reading starts 9 s after construction.
    Knob(const std::wstring& lineA, const std::wstring& lineB, int lower, int upper, int initial);
    // An encoder on two digital inputs of the program's (lines A and B), which
    // must outlive the knob. Line B leads when counting up: line codes 0, 2,
    // 3, 1, 0 (bit 0 = A, bit 1 = B) count up, the reverse counts down.
    Knob(DigitalInput* lineA, DigitalInput* lineB, int lower, int upper, int initial);
    // The quadrature counter chip on SPI port 1, whose count reaches the knob
    // through the named event "RotaryEvent". The knob takes its starting point
    // from the event half a second after construction.
    Knob(int lower, int upper, int initial);
    ~Knob();
    Knob(Knob&& other) noexcept;
    Knob& operator=(Knob&& other) noexcept;
    Knob(const Knob&) = delete;
    Knob& operator=(const Knob&) = delete;

    // Listeners are told in the order they were added. A listener may be
    // added more than once; removeListener takes out its first entry, and once
    // it returns the listener is not called any more through that entry.
    void addListener(KnobEventListener* listener);
    void removeListener(KnobEventListener* listener);

    int getCount() const;
    float getRate() const;
    // A new range, step and count; the new count is not announced. With
    // `wrap`, a step past one bound lands on the other; without, it stops at
    // the bound. The unsigned form compares the counter chip's count with the
    // bounds as unsigned numbers.
    void setRange(int lower, int upper, int increment, int value, bool wrap);
    void setRange(unsigned lower, unsigned upper, unsigned increment, unsigned value, bool wrap);
    void setIncrementAmount(int increment);

    // Installs the owner's range and count; false (and no change) when
    // another owner holds the focus or `owner` is null. While it holds the
    // focus, the owner hears every change of the counter chip's count at once.
    bool takeFocus(int lower, int upper, int increment, int value, KnobEventListener* owner,
                   bool wrap);
    // Gives back the range, step, wrap and count saved by takeFocus; false
    // (and no change) unless `owner` holds the focus.
    bool releaseFocus(KnobEventListener* owner);

    // Line codes rejected so far: a repeated code or a skipped step, and a
    // code that two lines cannot produce.
    unsigned codeOrderErrors() const;
    unsigned swErrors() const;

  private:
    std::unique_ptr<::Knob> knob_;
};

// The folder that stands for the unit's file system on this host (default
// "unit" in the working folder). Its "registry.reg" names the platform:
//   REGEDIT4
//
//   [HKEY_LOCAL_MACHINE\Platform]
//   "Name"="Kestrix Platform"
// Call it before the first knob is made: the platform is read once.
void setUnitRoot(const std::string& folder);
// The controller-board platform: 1 KTX ("Kestrix Platform"), 0 VBQ, 4 when
// the registry cannot be read. Only on KTX does a knob read the counter chip.
int platform();

// A simulated counter chip, for running knobs on a host without the panel.
namespace simulation {
// Installs a simulated LS7366R quadrature counter as the driver of "SPI1:"
// (chip select 1). Once per process; later calls do nothing.
void installCounterChip();
// The encoder moves by `counts` quadrature counts (negative: the other way).
void turnCounterChip(int counts);
// The chip's counter register.
std::uint32_t counterChipCount();
}  // namespace simulation

}  // namespace tovel
