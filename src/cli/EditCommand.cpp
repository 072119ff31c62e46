// `quillon edit PACKAGE [--device ID]`: opens one experiment or protocol package in an editor window and
// runs until the window is closed; the typing is written and the log saved on closing. The device
// identifier defaults to this machine's host name.
#include "cli/EditCommand.h"

#include "app/NBEditorWindow.h"
#include "document/NBDocument.h"
#include "store/OAKStore.h"

#include <CLI/CLI.hpp>
#include <QApplication>
#include <QSysInfo>

#include <cstring>
#include <iostream>

bool argumentsOpenEditor(int argc, char** argv) {
    return argc > 1 && std::strcmp(argv[1], "edit") == 0;
}

void addEditCommand(CLI::App& app) {
    CLI::App* edit = app.add_subcommand("edit", "Open an experiment or protocol package in an editor window");
    auto package = std::make_shared<std::string>();
    auto device = std::make_shared<std::string>();
    edit->add_option("package", *package, "The package folder (*.nbexperiment or *.nbprotocol)")->required();
    edit->add_option("--device", *device, "The device identifier to write as (default: this machine's name)");
    edit->callback([package, device] {
        QString deviceIdentifier = QString::fromStdString(*device);
        if (deviceIdentifier.isEmpty())
            deviceIdentifier = QSysInfo::machineHostName().replace(QLatin1Char('/'), QLatin1Char('-'));
        if (!OAKStore::isValidDeviceIdentifier(deviceIdentifier)) {
            std::cerr << "quillon: not a valid device identifier: \"" << deviceIdentifier.toStdString()
                      << "\"\n";
            std::exit(1);
        }
        NBError error;
        std::shared_ptr<NBDocument> document =
            NBDocument::openDocumentAtPath(QString::fromStdString(*package), deviceIdentifier, {}, &error);
        if (!document) {
            std::cerr << "quillon: " << error.localizedDescription().toStdString() << "\n";
            std::exit(1);
        }
        int status = 0;
        {
            NBEditorWindow window(document);
            window.show();
            status = QApplication::exec();
        }
        document->tearDownNow();
        std::exit(status);
    });
}
