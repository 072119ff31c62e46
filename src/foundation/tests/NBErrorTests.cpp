// Tests of the error value, its chain description and the message formatter.
#include "foundation/NBError.h"
#include "foundation/NBLogging.h"
#include "foundation/testing/NBMessageCapture.h"

#include <gtest/gtest.h>

TEST(NBError, DescriptionCarriesTheWholeChain) {
    NBError disk = NBError::errorWithObject("QFile", 5, "Disk full.");
    NBError save = NBError::errorWithObject("OAKStore", 30, "Could not save.",
                                            "The log could not be written.", "Free some space.", &disk);
    EXPECT_EQ(save.domain(), "OAKStore");
    EXPECT_EQ(save.code(), 30);
    ASSERT_NE(save.underlyingError(), nullptr);
    EXPECT_EQ(save.underlyingError()->localizedDescription(), "Disk full.");
    EXPECT_EQ(save.description(),
              "OAKStore (30): Could not save. The log could not be written. Free some space.\n"
              "caused by: QFile (5): Disk full.");

    NBError several = NBError::errorWithObject("NBDocument", 10, "Some attachments could not be removed.");
    several.setErrors({NBError::errorWithObject("NBDocument", 11, "a.png"), save});
    EXPECT_TRUE(several.description().contains("\n- NBDocument (11): a.png"));
    EXPECT_TRUE(several.description().contains("\n  caused by: QFile (5): Disk full."));
    EXPECT_FALSE(several == save);
    EXPECT_TRUE(NBError().isNull());

    NBError out;
    EXPECT_FALSE(nbFail(&out, disk));
    EXPECT_EQ(out, disk);
    EXPECT_FALSE(nbFail(nullptr, disk)); // callers may not ask for the error
}

TEST(NBLogging, FormatFillsPlaceholdersInOrderAndAssertionsAreCaptured) {
    EXPECT_EQ(nbFormat("%@:%@ should only be called from within the database queue", "OAKStore", "saveNow"),
              "OAKStore:saveNow should only be called from within the database queue");
    EXPECT_EQ(nbFormat("no placeholder"), "no placeholder");
    EXPECT_EQ(nbFormat("%@ and %@", "one"), "one and ");
    EXPECT_EQ(nbFormat("100%% %@", "x"), "100%% x");

    NBMessageCapture capture;
    qCWarning(lcFoundation).noquote() << "a warning";
    nbRaiseAssertion(lcFoundation(), "broken invariant");
    EXPECT_EQ(capture.assertions(), QStringList{"broken invariant"});
    EXPECT_TRUE(capture.contains("a warning"));
}
