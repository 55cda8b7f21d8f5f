#pragma once
// A rate chooser over a fixed list of frequencies: the slider picks an index, the label
// shows the rate. Arbitrary values snap to the list, so callers may pass what a device
// reported without checking it first.

#include <QList>
#include <QWidget>

class QLabel;
class QSlider;

class FrequencySlider : public QWidget
{
    Q_OBJECT

public:
    explicit FrequencySlider(QWidget* parent = nullptr);

    // Sorted ascending, duplicates dropped; keeps the current rate when it is still listed,
    // else selects the highest.
    void setFrequencies(const QList<int>& frequencies);
    const QList<int>& frequencies() const { return m_frequencies; }
    // 0 when the list is empty.
    int currentFrequency() const;
    // 0 outside the list.
    int frequencyAtIndex(int index) const;

    QSlider* slider() const { return m_slider; }
    QLabel* label() const { return m_label; }

public slots:
    // Moves to `frequency`; a rate that is not listed selects the highest one.
    void setFrequency(int frequency);
    // Moves to `bound` when it is listed; otherwise (also for bounds of 0 or less and above
    // the list) to the highest rate.
    void setFrequencyUpperBound(int bound);

signals:
    // Only for moves made by the user.
    void frequencyChanged(int frequency);

private:
    void moveTo(int index);
    void handleValueChanged(int index);
    void updateLabel();

    QSlider* m_slider = nullptr;
    QLabel* m_label = nullptr;
    QList<int> m_frequencies;
    bool m_moving = false;
};
