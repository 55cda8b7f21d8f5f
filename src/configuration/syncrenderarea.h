#pragma once
// A timing diagram of one synchronisation setting: the device's sample clock, and the
// pulses on the line with their polarity, width and offset (delay), skipped pulses
// dotted.

#include <QString>
#include <QWidget>

class QPainter;

class SyncRenderArea : public QWidget
{
    Q_OBJECT

public:
    // What the line does: nothing, triggers the device, clocks it, or is driven by it
    // periodically or once.
    enum SyncMode
    {
        NoSync = 0,
        TriggerInput = 1,
        ClockInput = 2,
        PulseOutput = 3,
        EventOutput = 4,
    };
    Q_ENUM(SyncMode)

    // How a pulse width of 0 is drawn: the level changes and stays (0), a hair-line pulse
    // (1), or no pulse at all (anything else).
    enum ZeroPwMode
    {
        ZeroPwToggle = 0,
        ZeroPwSpike = 1,
        ZeroPwNone = 2,
    };
    Q_ENUM(ZeroPwMode)

    // Vertical positions of the signal levels.
    static constexpr int LowY = 135;
    static constexpr int HighY = 55;

    explicit SyncRenderArea(QWidget* parent = nullptr);

    QSize minimumSizeHint() const override;
    QSize sizeHint() const override;

    void setFunction(int function);
    int function() const { return m_function; }
    void setFunctionText(const QString& text);
    QString functionText() const { return m_functionText; }
    // Samples per second of the device.
    void setUpdateRate(int rate);
    int updateRate() const { return m_updateRate; }
    void setPolarity(int polarity);
    int polarity() const { return m_polarity; }
    void setTriggerOnce(bool once);
    bool triggerOnce() const { return m_triggerOnce; }
    void setSkipFirst(unsigned short count);
    unsigned short skipFirst() const { return m_skipFirst; }
    void setSkipFactor(unsigned short factor);
    unsigned short skipFactor() const { return m_skipFactor; }
    void setPulseWidth(unsigned int microseconds);
    unsigned int pulseWidth() const { return m_pulseWidth; }
    void setOffset(int microseconds);
    int offset() const { return m_offset; }
    void setClockPeriod(unsigned short milliseconds);
    unsigned short clockPeriod() const { return m_clockPeriod; }
    void setInput(bool input);
    bool isInput() const { return m_input; }
    void setSyncMode(SyncMode mode);
    SyncMode syncMode() const { return m_syncMode; }
    void setZeroPwMode(ZeroPwMode mode);
    ZeroPwMode zeroPwMode() const { return m_zeroPwMode; }
    // Sampling begins with the first trigger instead of running freely.
    void setStartSampling(bool start);
    bool startSampling() const { return m_startSampling; }

    // The pulse width as drawn (µs): never a whole period, so that pulses stay apart.
    unsigned int adjustedPulseWidth() const { return m_adjustedPulseWidth; }
    // The sample period in milliseconds.
    double periodMs() const;
    // The idle and the active level of the current pulse (the edge the setting acts on
    // leads from the first to the second).
    int lowLevel() const;
    int highLevel() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

    void drawBackground(QPainter& painter);
    // The device's sample instants along the bottom.
    void drawSyncFrames(QPainter& painter);
    // One pulse from `x` for `width` pixels; returns the level it ends on.
    int drawSinglePulse(QPainter& painter, double x, double width);
    // The pulses the device drives on an output line.
    void drawOutputPulse(QPainter& painter);
    // A pulse that is skipped or ignored.
    void drawDottedFrame(QPainter& painter, double x, double width);
    void drawArrow(QPainter& painter, const QPointF& from, const QPointF& to);
    void drawOffsetArrow(QPainter& painter, double fromX, double toX, double y);
    void drawOffset(QPainter& painter, double fromX, double toX);

private:
    struct Event
    {
        double time = 0;   // µs from the left edge of the diagram
        bool used = false; // acted on (else skipped or ignored)
    };

    void updateAdjustedPulseWidth();
    // The drawing's time line: events, their spacing and the span shown.
    void layoutEvents();
    void drawInputPulses(QPainter& painter);
    void drawEdgeMark(QPainter& painter, double x, bool rising);
    void drawInfo(QPainter& painter);
    double xOf(double time) const;
    double plotLeft() const;
    double plotRight() const;
    double samplePeriodUs() const;
    // Where the device acts on (input) or starts (output) the pulse of an event.
    double actionTime(const Event& e) const;
    bool toggles() const;

    int m_function = 16;
    QString m_functionText;
    int m_updateRate = 100;
    int m_polarity = 1;
    bool m_triggerOnce = false;
    unsigned short m_skipFirst = 0;
    unsigned short m_skipFactor = 0;
    unsigned int m_pulseWidth = 1000;
    int m_offset = 0;
    unsigned short m_clockPeriod = 0;
    bool m_input = true;
    SyncMode m_syncMode = NoSync;
    ZeroPwMode m_zeroPwMode = ZeroPwToggle;
    bool m_startSampling = false;
    unsigned int m_adjustedPulseWidth = 1000;

    // Drawing state: whether the pulse being drawn is the second edge of a pair.
    bool m_secondEdge = false;
    // A toggling output whose pulse this is the second of a pair.
    bool m_inverted = false;
    QVector<Event> m_events;
    double m_spacingUs = 10000;
    double m_spanUs = 60000;
};
