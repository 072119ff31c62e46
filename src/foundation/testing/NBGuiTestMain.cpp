// Entry point of the test programs that use Qt Gui (rich text, fonts): an off-screen QGuiApplication, then
// every GoogleTest test.
#include <QGuiApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
