// HDMI/DVI receiver watched by a thread of its own (LT8619); a pass here
// only copies what that thread has published.
#pragma once

#include "driver/DriverBase.h"

class LT8619;

class DriverLT8619 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverLT8619(QObject* parent = nullptr);
    // Drivers live as long as the process on the board; a test that ends
    // one stops its thread first.
    ~DriverLT8619() override;

    QMap<QString, QVariant> diagnostics() override;

    LT8619* lt = nullptr;

public slots:
    void init() override;
    void onCheck() override;
};
