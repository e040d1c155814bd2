#include "voicebank/voiceprofile.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/voicebank/bank.h"

namespace {
const char kNameSjis[] = "\x82\xa0\x82\xa2";        // あい
const char kNameUtf8[] = "\xe3\x81\x82\xe3\x81\x84";  // あい
}  // namespace

TEST(VoiceProfile, FolderWithoutCharacterFileIsNamedAfterItself) {
  TestBank bank;
  CVoiceProfile profile(bank.path().c_str());
  EXPECT_TRUE(profile.isValid());
  EXPECT_EQ(std::string(profile.folder()), bank.folder());
  EXPECT_EQ(std::string(profile.voiceName()), bank.path().substr(bank.path().rfind('/') + 1));
  EXPECT_EQ(profile.imageFilePath(), nullptr);
  EXPECT_EQ(profile.samplePath(), nullptr);
  EXPECT_STREQ(profile.readmeText(), "");
  EXPECT_STREQ(profile.profileText(), "");

  CVoiceProfile none("");
  EXPECT_FALSE(none.isValid());
  EXPECT_EQ(none.voiceName(), nullptr);
}

TEST(VoiceProfile, ShiftJisByDefault) {
  TestBank bank;
  bank.write("character.txt",
             std::string("name=") + kNameSjis + "\r\nimage=face.bmp\r\nsample=" + kNameSjis +
                 ".wav\r\nauthor=" + kNameSjis + "\r\nname=\r\n");
  CVoiceProfile profile(bank.path().c_str());
  EXPECT_STREQ(profile.voiceName(), kNameUtf8);
  EXPECT_EQ(std::string(profile.imageFilePath()), bank.folder() + "face.bmp");
  EXPECT_EQ(std::string(profile.samplePath()), bank.folder() + kNameUtf8 + ".wav");
  EXPECT_EQ(std::string(profile.profileText()), std::string("author=") + kNameUtf8 + "\n");
}

TEST(VoiceProfile, CharsetLineAppliesToTheLinesAfterIt) {
  TestBank bank;
  // Four characters decide: utf-16 counts as UTF-8.
  bank.write("character.txt", std::string("name=") + kNameSjis + "\nCharset=utf-16\nsample=" + kNameUtf8 +
                                  ".wav\nname=" + kNameUtf8 + "\n");
  CVoiceProfile profile(bank.path().c_str());
  EXPECT_STREQ(profile.voiceName(), kNameUtf8);
  EXPECT_EQ(std::string(profile.samplePath()), bank.folder() + kNameUtf8 + ".wav");

  TestBank other;
  other.write("character.txt", std::string("charset=latin1\nname=") + kNameSjis + "\n");
  EXPECT_STREQ(CVoiceProfile(other.path().c_str()).voiceName(), kNameUtf8);
}

TEST(VoiceProfile, FirstLineMentioningUtf8KeepsTextsUnconverted) {
  TestBank bank;
  // The profile text is taken as UTF-8, while the name still needs a charset line.
  bank.write("character.txt", std::string("# UTF8 profile\nname=") + kNameSjis + "\nvoice by " + kNameUtf8 + "\n");
  CVoiceProfile profile(bank.path().c_str());
  EXPECT_STREQ(profile.voiceName(), kNameUtf8);
  EXPECT_EQ(std::string(profile.profileText()), std::string("# UTF8 profile\nvoice by ") + kNameUtf8 + "\n");

  bank.write("readme.txt", std::string("readme\r\n") + kNameSjis + "\r\n");
  EXPECT_EQ(std::string(profile.readmeText()), std::string("readme\n") + kNameUtf8 + "\n");
  bank.write("readme.txt", std::string("utf8 readme\n") + kNameUtf8 + "\n");
  EXPECT_EQ(std::string(profile.readmeText()), std::string("utf8 readme\n") + kNameUtf8 + "\n");
}
