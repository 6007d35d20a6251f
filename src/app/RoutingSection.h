#pragma once

#include "app/DetailSection.h"

class QComboBox;
class QLabel;
class QLineEdit;
class RoutingMatrixView;

// Where the selected key sounds: the routing text, the quick choices, the matrix (a click
// toggles a route and the matrix then governs), the description of every channel's outputs,
// and copying this routing to every key. Main thread.
class RoutingSection : public DetailSection {
public:
    // Quick routing texts offered next to the routing field: label, text.
    static const QList<QPair<QString, QString>>& quickRoutings();

    RoutingSection(AppModel& model, QWidget* parent);

    RoutingMatrixView& matrix() { return *m_matrix; }

protected:
    void show(const KeyAssignment& a, const MediaInfo* media) override;

private:
    QLineEdit* m_outputMap = nullptr;
    QComboBox* m_quick = nullptr;
    RoutingMatrixView* m_matrix = nullptr;
    QLabel* m_describe = nullptr;
};
