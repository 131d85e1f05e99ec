// The default I/O messages of codes 0 to 9 go through the message catalogue
// when the table is built; 10 to 13 never do. A French catalogue is loaded
// before anything asks for a default message (this program's own process).
#include "tal/Error.h"

#include <gtest/gtest.h>
#include <wx/init.h>
#include <wx/translation.h>

namespace {

class CFrenchCatalogue : public ::testing::Environment {
public:
  void SetUp() override {
    initialised = wxInitialize(); // the catalogue lookup needs the toolkit's application traits
    auto* translations = new wxTranslations;
    wxTranslations::Set(translations);
    wxFileTranslationsLoader::AddCatalogLookupPathPrefix(wxString::FromUTF8(ZIPUTIL_TEST_LOCALE_DIR));
    translations->SetLanguage(wxString("fr"));
    loaded = translations->AddCatalog(wxString("ziputil-test"));
  }
  void TearDown() override {
    if (initialised) wxUninitialize();
  }
  static bool loaded;
  bool initialised = false;
};
bool CFrenchCatalogue::loaded = false;

::testing::Environment* const g_catalogue = ::testing::AddGlobalTestEnvironment(new CFrenchCatalogue);

std::string message(int code) {
  return tal::CIOError::getDefaultMessage(static_cast<tal::CIOError::Code>(code)).toUTF8();
}

TEST(ErrorTranslationTest, CodesZeroToNineAreTranslatedTenToThirteenAreNot) {
  ASSERT_TRUE(CFrenchCatalogue::loaded);
  ASSERT_EQ(wxGetTranslation(wxString("Error writing data.")).ToStdString(wxConvUTF8), "Erreur d'écriture des données.");
  EXPECT_EQ(message(0), "Erreur d'E/S inconnue.");
  EXPECT_EQ(message(1), "Erreur à l'ouverture du fichier ou du flux.");
  EXPECT_EQ(message(2), "Erreur de lecture des données.");
  EXPECT_EQ(message(3), "Erreur d'écriture des données.");
  EXPECT_EQ(message(4), "Fin de données inattendue.");
  EXPECT_EQ(message(5), "Les données sont invalides ou corrompues.");
  EXPECT_EQ(message(6), "Version de données non prise en charge ou invalide.");
  EXPECT_EQ(message(7), "Erreur de positionnement.");
  EXPECT_EQ(message(8), "Erreur au déplacement d'un fichier.");
  EXPECT_EQ(message(9), "Erreur à la suppression d'un fichier.");
  // The catalogue does translate the texts of codes 10 to 13; the table keeps them as written.
  EXPECT_EQ(wxGetTranslation(wxString("Error: stream has been closed.")).ToStdString(wxConvUTF8),
            "Erreur : le flux a été fermé.");
  EXPECT_EQ(wxGetTranslation(wxString("Error changing the size of a file.")).ToStdString(wxConvUTF8),
            "Erreur au changement de taille d'un fichier.");
  EXPECT_EQ(message(10), "Error: stream has been closed.");
  EXPECT_EQ(message(11), "Error: stream position is not aligned correctly.");
  EXPECT_EQ(message(12), "Error: buffer passed to stream is not aligned correctly.");
  EXPECT_EQ(message(13), "Error changing the size of a file.");
  tal::CIOError closed(tal::CIOError::StreamClosed, tal::String(), tal::CProps(), nullptr);
  EXPECT_EQ(closed.getMessage().toUTF8(), "Error: stream has been closed.");
  tal::CIOError written(tal::CIOError::WriteFailed, tal::String(), tal::CProps(), nullptr);
  EXPECT_STREQ(written.what(), "Erreur d'écriture des données.");
}

TEST(ErrorTranslationTest, ALanguageChangeAfterwardsChangesNothing) {
  std::string const before = message(3);
  EXPECT_EQ(before, "Erreur d'écriture des données."); // the table was built with the French catalogue
  // A new translation set without the catalogue: the toolkit now answers in English...
  wxTranslations::Set(new wxTranslations);
  EXPECT_EQ(wxGetTranslation(wxString("Error writing data.")).ToStdString(wxConvUTF8), "Error writing data.");
  // ...but the table was built once and keeps its French messages.
  EXPECT_EQ(message(3), before);
  EXPECT_EQ(message(0), "Erreur d'E/S inconnue.");
  tal::CIOError e(tal::CIOError::WriteFailed, tal::String(), tal::CProps(), nullptr);
  EXPECT_EQ(e.getMessage().toUTF8(), before);
  EXPECT_EQ(message(14), "");
  EXPECT_EQ(message(-1), "");
}

} // namespace
