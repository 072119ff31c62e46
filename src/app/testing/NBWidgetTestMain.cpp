// Entry point of the widget test programs: an off-screen QApplication (widgets need one), then every
// GoogleTest test.
#include <QApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
