#pragma once
// One page of an options dialog: the application's options or a device's settings. The
// dialog lists pages by category and name; `name`/`category` are stable keys, the tr...
// forms are what the user reads.

#include <QString>
#include <QWidget>

class AbstractOptionsPage : public QWidget
{
    Q_OBJECT

public:
    explicit AbstractOptionsPage(QWidget* parent = nullptr) : QWidget(parent) {}

    virtual QString name() const = 0;
    virtual QString trName() const = 0;
    virtual QString category() const = 0;
    virtual QString trCategory() const = 0;

public slots:
    // Takes over what the page shows.
    virtual void apply() = 0;
    // Shows the stored values again.
    virtual void refreshUi() {}
};
