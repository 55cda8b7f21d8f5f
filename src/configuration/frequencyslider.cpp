#include "frequencyslider.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QSlider>

#include <algorithm>

FrequencySlider::FrequencySlider(QWidget* parent) : QWidget(parent)
{
    m_slider = new QSlider(Qt::Horizontal, this);
    m_slider->setObjectName(QStringLiteral("frequencySlider"));
    m_slider->setRange(0, 0);
    m_slider->setPageStep(1);
    m_slider->setTickPosition(QSlider::TicksBelow);
    m_label = new QLabel(this);
    m_label->setObjectName(QStringLiteral("frequencyLabel"));
    // Room for "2000 Hz" so the slider does not jump while the text changes width.
    m_label->setMinimumWidth(m_label->fontMetrics().horizontalAdvance(QStringLiteral("00000 Hz")));
    m_label->setAlignment(Qt::AlignRight | Qt::AlignVCenter);

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_slider, 1);
    layout->addWidget(m_label);

    connect(m_slider, &QSlider::valueChanged, this, &FrequencySlider::handleValueChanged);
    updateLabel();
}

void FrequencySlider::setFrequencies(const QList<int>& frequencies)
{
    const int previous = currentFrequency();
    QList<int> sorted = frequencies;
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());

    m_moving = true;
    m_frequencies = sorted;
    m_slider->setRange(0, std::max(0, int(m_frequencies.size()) - 1));
    const int kept = m_frequencies.indexOf(previous);
    m_slider->setValue(kept >= 0 ? kept : m_slider->maximum());
    m_moving = false;
    updateLabel();
}

int FrequencySlider::currentFrequency() const
{
    return frequencyAtIndex(m_slider->value());
}

int FrequencySlider::frequencyAtIndex(int index) const
{
    return index >= 0 && index < m_frequencies.size() ? m_frequencies.at(index) : 0;
}

void FrequencySlider::setFrequency(int frequency)
{
    if (m_frequencies.isEmpty()) {
        if (frequency != 0)
            moveTo(m_slider->maximum());
        return;
    }
    if (frequency == currentFrequency())
        return;
    const int index = m_frequencies.indexOf(frequency);
    moveTo(index >= 0 ? index : m_slider->maximum());
}

void FrequencySlider::setFrequencyUpperBound(int bound)
{
    if (m_frequencies.isEmpty() || bound == currentFrequency())
        return;
    if (bound <= 0 || bound > m_frequencies.last()) {
        moveTo(m_slider->maximum());
        return;
    }
    const auto atOrAbove = std::lower_bound(m_frequencies.begin(), m_frequencies.end(), bound);
    if (*atOrAbove == bound)
        setFrequency(bound);
    else
        setFrequency(0); // 0 is never listed: this lands on the highest rate
}

void FrequencySlider::moveTo(int index)
{
    m_moving = true;
    m_slider->setValue(index);
    m_moving = false;
    updateLabel();
}

void FrequencySlider::handleValueChanged(int)
{
    updateLabel();
    if (!m_moving)
        emit frequencyChanged(currentFrequency());
}

void FrequencySlider::updateLabel()
{
    m_label->setText(tr("%1 Hz").arg(currentFrequency()));
}
