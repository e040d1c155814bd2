#include "editing/scaleman.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {
std::string text(const CScaleMan& scale) {
  std::vector<char> buffer(static_cast<size_t>(scale.serialize2text(nullptr, 0)));
  scale.serialize2text(buffer.data(), static_cast<int32_t>(buffer.size()));
  return buffer.data();
}
}  // namespace

TEST(TimeSignatures, AddSplitsAndReplaces) {
  CScaleMan scale;
  EXPECT_EQ(text(scale), "(4/4/0),");
  EXPECT_EQ(scale.addTimeSignature(4, 3, 4), 2);
  EXPECT_EQ(text(scale), "(4/4/4),(3/4/0),");
  EXPECT_EQ(scale.addTimeSignature(2, 6, 8), 3);
  EXPECT_EQ(text(scale), "(4/4/2),(6/8/2),(3/4/0),");
  EXPECT_EQ(scale.addTimeSignature(0, 2, 4), 3);  // at the start of one: replaced
  EXPECT_EQ(text(scale), "(2/4/2),(6/8/2),(3/4/0),");
  EXPECT_EQ(scale.addTimeSignature(9, 5, 4), 4);  // inside the last one
  EXPECT_EQ(text(scale), "(2/4/2),(6/8/2),(3/4/5),(5/4/0),");
}

TEST(TimeSignatures, RemoveOnlyWhereOneStarts) {
  CScaleMan scale;
  scale.addTimeSignature(4, 3, 4);
  EXPECT_EQ(scale.removeTimeSignature(0), 2);  // the first is never removed
  EXPECT_EQ(scale.removeTimeSignature(3), 2);  // nothing starts there
  EXPECT_EQ(text(scale), "(4/4/4),(3/4/0),");
  EXPECT_EQ(scale.removeTimeSignature(4), 1);
  EXPECT_EQ(text(scale), "(4/4/0),");

  scale.addTimeSignature(2, 3, 4);
  scale.addTimeSignature(5, 6, 8);
  EXPECT_EQ(scale.removeTimeSignature(2), 2);  // the one before absorbs its measures
  EXPECT_EQ(text(scale), "(4/4/5),(6/8/0),");
}

TEST(TimeSignatures, TextFormBothWays) {
  CScaleMan scale;
  EXPECT_EQ(scale.unserializeText("(4/4/2),(6/8/2),(3/4/0),"), 3);
  EXPECT_EQ(text(scale), "(4/4/2),(6/8/2),(3/4/0),");
  EXPECT_EQ(scale.getBeat(1), 6);
  EXPECT_EQ(scale.getNote(1), 8);
  EXPECT_EQ(scale.unserializeText(""), 0);  // no default entry is made
  EXPECT_EQ(scale.count(), 0);
  EXPECT_EQ(scale.unserializeText("(0/4/2),(3/x/1),(5/4"), 1);  // only 5/4 has beats and note
  EXPECT_EQ(text(scale), "(5/4/0),");

  // A buffer that holds only the first piece gets only the first piece.
  scale.unserializeText("(4/4/2),(3/4/0),");
  char small[12];
  EXPECT_EQ(scale.serialize2text(small, sizeof small), 17);
  EXPECT_STREQ(small, "(4/4/2),");
  // A short piece after one that did not fit is not written either.
  scale.unserializeText("(4/4/2),(12/16/10),(3/4/0),");
  char medium[19];
  scale.serialize2text(medium, sizeof medium);
  EXPECT_STREQ(medium, "(4/4/2),");
  scale.resetScale();
  EXPECT_EQ(text(scale), "(4/4/0),");
}

TEST(TimeSignatures, BoundaryWalkInThreeFour) {
  CScaleMan scale;
  scale.addTimeSignature(0, 3, 4);
  int32_t entry = -5;
  scale.initBoundary(480, &entry);
  EXPECT_EQ(entry, 0);
  std::vector<int32_t> positions, measures;
  int32_t beat = 0, measure = 0;
  for (int i = 0; i < 4; ++i) {
    positions.push_back(scale.nextBoundary(&beat, &measure, &entry));
    measures.push_back(measure);
  }
  EXPECT_EQ(positions, (std::vector<int32_t>{480, 960, 1440, 1920}));
  EXPECT_EQ(measures, (std::vector<int32_t>{0, 0, 1, 1}));
  EXPECT_EQ(scale.getMeasureNumber(480, 1441, &entry), 1);
  EXPECT_EQ(scale.getMeasureNumber(480, 1440, &entry), -1);  // last beat before is not a downbeat
  EXPECT_EQ(scale.getMeasureNumber(480, 100, &entry), 0);
}

TEST(TimeSignatures, WalkMovesIntoTheNextSignature) {
  CScaleMan scale;
  scale.unserializeText("(2/4/1),(6/8/0),");
  int32_t entry = 0, beat = 0, measure = 0;
  scale.initBoundary(480, &entry);
  EXPECT_EQ(scale.nextBoundary(&beat, &measure, &entry), 480);
  EXPECT_EQ(entry, -1);
  EXPECT_EQ(scale.nextBoundary(&beat, &measure, &entry), 960);
  EXPECT_EQ(entry, 1);  // two beats of 2/4 done
  EXPECT_EQ(measure, 1);
  EXPECT_EQ(scale.nextBoundary(&beat, &measure, &entry), 1200);  // eighths now
  // The walk of an emptied list neither divides by zero nor stalls.
  scale.unserializeText("");
  scale.initBoundary(480, &entry);
  EXPECT_EQ(scale.nextBoundary(&beat, &measure, &entry), 480);
  EXPECT_EQ(scale.getMeasureNumber(0, 1000, &entry), 0);
}
