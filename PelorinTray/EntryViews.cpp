#include "PelorinTray/EntryViews.h"

#include <algorithm>
#include <QCheckBox>
#include <QFrame>
#include <QLabel>
#include <QPushButton>

namespace pelorin {
namespace {

using Kind = MenuEntry::Kind;

constexpr int windowWidth = 360; // points, at least

// Widgets take an ampersand for the mark of a shortcut.
QString shownText(const MenuEntry& entry)
{
    return QString(entry.text).replace('&', "&&");
}

bool haveSameShape(const QList<MenuEntry>& some, const QList<MenuEntry>& others)
{
    return std::ranges::equal(some, others, [](const MenuEntry& one, const MenuEntry& other) {
        return one.kind == other.kind && one.action == other.action && one.id == other.id
            && one.name == other.name && haveSameShape(one.entries, other.entries);
    });
}

} // namespace

void EntryMenu::show(const QList<MenuEntry>& wanted)
{
    if (wanted == shown) return;
    if (haveSameShape(shown, wanted))
        update(*this, wanted);
    else
        build(*this, wanted, choose);
    shown = wanted;
}

void EntryMenu::build(QMenu& menu, const QList<MenuEntry>& entries, const ChooseEntry& choose)
{
    const auto former = menu.findChildren<QMenu*>(Qt::FindDirectChildrenOnly);
    menu.clear();
    for (QMenu* group : former) group->deleteLater();
    for (const MenuEntry& entry : entries) {
        if (entry.kind == Kind::separator) {
            menu.addSeparator();
        } else if (entry.kind == Kind::group) {
            build(*menu.addMenu(QString()), entry.entries, choose);
        } else {
            QAction* action = menu.addAction(QString());
            action->setCheckable(entry.kind == Kind::toggle);
            action->setEnabled(entry.kind != Kind::line);
            connect(action, &QAction::triggered, [choose, entry] { choose(entry); });
        }
    }
    update(menu, entries);
}

void EntryMenu::update(const QMenu& menu, const QList<MenuEntry>& entries)
{
    const QList<QAction*> actions = menu.actions();
    for (qsizetype i = 0; i < entries.size(); ++i) {
        const MenuEntry& entry = entries[i];
        if (entry.kind == Kind::separator) continue;
        actions[i]->setText(shownText(entry));
        if (entry.kind == Kind::toggle) actions[i]->setChecked(entry.isOn);
        if (entry.kind == Kind::action) actions[i]->setEnabled(entry.isOn);
        if (entry.kind == Kind::group) update(*actions[i]->menu(), entry.entries);
    }
}

EntryWindow::EntryWindow(ChooseEntry newChoose) : choose(std::move(newChoose)), column(new QVBoxLayout(this))
{
    setWindowTitle("Pelorin");
    column->setSizeConstraint(QLayout::SetFixedSize);
    column->addStrut(windowWidth);
}

void EntryWindow::show(const QList<MenuEntry>& wanted)
{
    if (wanted != shown && haveSameShape(shown, wanted)) {
        for (qsizetype i = 0; i < wanted.size(); ++i) update(widgets[i], wanted[i]);
    } else if (wanted != shown) {
        for (QWidget* widget : widgets) {
            widget->hide();
            widget->deleteLater(); // one of them may be calling us
        }
        widgets.clear();
        for (const MenuEntry& entry : wanted) {
            widgets << widgetOf(entry);
            column->addWidget(widgets.last());
            update(widgets.last(), entry);
        }
    }
    shown = wanted;
    QWidget::show();
}

QWidget* EntryWindow::widgetOf(const MenuEntry& entry)
{
    if (entry.kind == Kind::separator) {
        auto* rule = new QFrame;
        rule->setFrameStyle(static_cast<int>(QFrame::HLine) | static_cast<int>(QFrame::Sunken));
        return rule;
    }
    if (entry.kind == Kind::line) {
        auto* label = new QLabel;
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
        return label;
    }
    if (entry.kind == Kind::toggle) {
        auto* box = new QCheckBox;
        connect(box, &QCheckBox::clicked, [this, entry] { choose(entry); });
        return box;
    }
    auto* button = new QPushButton;
    if (entry.kind == Kind::group) {
        auto* menu = new QMenu(button);
        EntryMenu::build(*menu, entry.entries, choose);
        button->setMenu(menu);
    } else {
        connect(button, &QPushButton::clicked, [this, entry] { choose(entry); });
    }
    return button;
}

void EntryWindow::update(QWidget* widget, const MenuEntry& entry)
{
    if (auto* label = qobject_cast<QLabel*>(widget)) label->setText(entry.text);
    if (auto* box = qobject_cast<QCheckBox*>(widget)) {
        box->setText(shownText(entry));
        box->setChecked(entry.isOn);
    }
    if (auto* button = qobject_cast<QPushButton*>(widget)) {
        button->setText(shownText(entry));
        button->setEnabled(entry.isOn);
        if (button->menu()) EntryMenu::update(*button->menu(), entry.entries);
    }
}

void EntryWindow::closeEvent(QCloseEvent* event)
{
    QWidget::closeEvent(event);
    if (onClose) onClose();
}

} // namespace pelorin
