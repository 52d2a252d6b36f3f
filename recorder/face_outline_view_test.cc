#include "recorder/face_outline_view.h"

#include <gtest/gtest.h>

#include "recorder/capture_preview_view.h"
#include "recorder/testing/test_frames.h"

namespace nembra {
namespace {

using testing::lumaAt;

TEST(FaceOutlineViewTest, AddFaceUpdatesByIdentifierAndRetainDropsFacesThatLeft) {
  FaceOutlineView view;
  EXPECT_TRUE(view.faceRects().empty());
  view.addFace(7, {10, 10, 20, 20});
  view.addFace(9, {50, 10, 20, 20});
  view.addFace(7, {12, 11, 20, 20});
  auto faces = view.faceRects();
  ASSERT_EQ(faces.size(), 2u);
  EXPECT_EQ(faces[7], (FaceRect{12, 11, 20, 20}));
  view.retainFaces({9});
  faces = view.faceRects();
  ASSERT_EQ(faces.size(), 1u);
  EXPECT_TRUE(faces.count(9));
}

TEST(FaceOutlineViewTest, OutlinesEachFaceAndLeavesItsInsideAlone) {
  FaceOutlineView view;
  view.addFace(1, {20, 10, 40, 40});
  view.addFace(2, {90, 30, 60, 60});  // runs off the right and bottom edges: clipped
  auto picture = testing::solidFrame(120, 80, 60);
  view.drawRect(*picture);
  EXPECT_EQ(lumaAt(*picture, 20, 10), 210);   // corner
  EXPECT_EQ(lumaAt(*picture, 40, 10), 210);   // top edge
  EXPECT_EQ(lumaAt(*picture, 59, 30), 210);   // right edge
  EXPECT_EQ(lumaAt(*picture, 40, 30), 60);    // inside
  EXPECT_EQ(lumaAt(*picture, 10, 30), 60);    // outside
  EXPECT_EQ(lumaAt(*picture, 90, 60), 210);   // second face's left edge
  EXPECT_EQ(lumaAt(*picture, 119, 60), 210);  // its clipped right edge is the picture's
  EXPECT_EQ(lumaAt(*picture, 100, 60), 60);
  // Chroma turns yellow under the outline.
  EXPECT_EQ(picture->planes[1][5 * picture->strides[1] + 15], 16);

  auto untouched = testing::solidFrame(120, 80, 60);
  view.setHidden(true);
  view.drawRect(*untouched);
  EXPECT_EQ(untouched->planes[0], testing::solidFrame(120, 80, 60)->planes[0]);
}

TEST(FaceOutlineViewTest, ADrawableIsStretchedOverTheFaceByItsAlpha) {
  auto drawable = std::make_shared<Picture>();
  drawable->width = 2;
  drawable->height = 1;
  // Opaque white on the left, fully transparent on the right.
  drawable->frames.push_back({{255, 255, 255, 255, 0, 0, 0, 0}, 0});
  FaceOutlineView view;
  view.setOutlineDrawable(drawable);
  view.addFace(1, {10, 10, 20, 10});
  auto picture = testing::solidFrame(40, 40, 50);
  view.drawRect(*picture);
  EXPECT_EQ(lumaAt(*picture, 12, 15), 255);
  EXPECT_EQ(lumaAt(*picture, 25, 15), 50);
  EXPECT_EQ(lumaAt(*picture, 5, 5), 50);
}

TEST(CapturePreviewLayerTest, AspectFillCropsToTheAreaAndMovesFacesWithTheCrop) {
  CapturePreviewLayer layer(nullptr);
  layer.setLayerSize(800, 600);  // 4 : 3
  const FaceRect region = layer.visibleRegion(1280, 720);
  EXPECT_EQ(region, (FaceRect{160, 0, 960, 720}));
  EXPECT_EQ(layer.toLayer({400, 100, 50, 50}, 1280, 720), (FaceRect{240, 100, 50, 50}));
  // A portrait area takes a tall strip.
  layer.setLayerSize(720, 1280);
  EXPECT_EQ(layer.visibleRegion(1280, 720), (FaceRect{438, 0, 404, 720}));
  // A frame already of the area's ratio, aspect fit, and an unknown area show everything.
  layer.setLayerSize(640, 360);
  EXPECT_EQ(layer.visibleRegion(1280, 720), (FaceRect{0, 0, 1280, 720}));
  layer.setLayerSize(800, 600);
  layer.setVideoGravity(VideoGravity::ResizeAspect);
  EXPECT_EQ(layer.visibleRegion(1280, 720), (FaceRect{0, 0, 1280, 720}));
  layer.setVideoGravity(VideoGravity::ResizeAspectFill);
  layer.setLayerSize(0, 0);
  EXPECT_EQ(layer.visibleRegion(1280, 720), (FaceRect{0, 0, 1280, 720}));
}

class RecordingSurface final : public VideoSurface {
 public:
  void present(SharedVideoFrame frame) override { frames.push_back(std::move(frame)); }
  void clear() override {}
  std::vector<SharedVideoFrame> frames;
};

TEST(CapturePreviewLayerTest, PresentsTheCroppedPictureWithTheOverlayDrawnInLayerCoordinates) {
  RecordingSurface surface;
  CapturePreviewLayer layer(&surface);
  layer.setLayerSize(400, 400);
  FaceOutlineView faces;
  layer.setOverlay([&faces](VideoFrame& picture) { faces.drawRect(picture); });
  auto frame = testing::solidFrame(160, 100, 40);
  // A bright column at capture x 100, which lands at layer x 70 after the 30-pixel crop.
  for (int y = 0; y < 100; ++y) frame->planes[0][y * 160 + 100] = 250;
  faces.addFace(1, layer.toLayer({100, 20, 20, 20}, 160, 100));
  layer.onVideoFrame(frame);
  ASSERT_EQ(surface.frames.size(), 1u);
  const VideoFrame& shown = *surface.frames[0];
  EXPECT_EQ(shown.width, 100);
  EXPECT_EQ(shown.height, 100);
  EXPECT_EQ(lumaAt(shown, 70, 90), 250);
  EXPECT_EQ(lumaAt(shown, 75, 20), 210);   // the outline's top edge
  EXPECT_EQ(lumaAt(*frame, 105, 20), 40);  // the capture itself is never drawn on
}

}  // namespace
}  // namespace nembra
