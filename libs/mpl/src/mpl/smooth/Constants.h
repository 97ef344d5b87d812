#pragma once

// Element names, attribute names and values of a Smooth Streaming client manifest ([MS-SSTR]
// section 2.2.2).
namespace SmoothStreaming {

inline constexpr char kSmoothStreamingMedia[] = "SmoothStreamingMedia";
inline constexpr char kStreamElement[] = "StreamIndex";
inline constexpr char kTrackElement[] = "QualityLevel";
inline constexpr char kStreamFragmentElement[] = "c";
inline constexpr char kTrackFragmentElement[] = "f";
inline constexpr char kProtectionElement[] = "Protection";
inline constexpr char kProtectionHeaderElement[] = "ProtectionHeader";

inline constexpr char kSystemIdAttr[] = "SystemID";
inline constexpr char kMajorVersionAttr[] = "MajorVersion";
inline constexpr char kMinorVersionAttr[] = "MinorVersion";
inline constexpr char kTimeScaleAttr[] = "TimeScale";
inline constexpr char kDurationAttr[] = "Duration";
inline constexpr char kIsLiveAttr[] = "IsLive";
inline constexpr char kLookaheadCountAttr[] = "LookaheadCount";
inline constexpr char kDVRWindowLengthAttr[] = "DVRWindowLength";
inline constexpr char kTypeAttr[] = "Type";
inline constexpr char kSubtypeAttr[] = "Subtype";
inline constexpr char kNameAttr[] = "Name";
inline constexpr char kChunksAttr[] = "Chunks";
inline constexpr char kQualityLevelsAttr[] = "QualityLevels";
inline constexpr char kUrlAttr[] = "Url";
inline constexpr char kMaxWidthAttr[] = "MaxWidth";
inline constexpr char kMaxHeightAttr[] = "MaxHeight";
inline constexpr char kDisplayWidthAttr[] = "DisplayWidth";
inline constexpr char kDisplayHeightAttr[] = "DisplayHeight";
inline constexpr char kParentStreamAttr[] = "ParentStream";
inline constexpr char kManifestOutputAttr[] = "ManifestOutput";
inline constexpr char kIndexAttr[] = "Index";
inline constexpr char kBitrateAttr[] = "Bitrate";
inline constexpr char kSamplingRateAttr[] = "SamplingRate";
inline constexpr char kAudioTagAttr[] = "AudioTag";
inline constexpr char kBitsPerSampleAttr[] = "BitsPerSample";
inline constexpr char kPacketSizeAttr[] = "PacketSize";
inline constexpr char kCodecPrivateDataAttr[] = "CodecPrivateData";
inline constexpr char kChannelsAttr[] = "Channels";
inline constexpr char kFourCCAttr[] = "FourCC";
inline constexpr char kNALUnitLengthFieldAttr[] = "NALUnitLengthField";
inline constexpr char kTimestampShortAttr[] = "t";
inline constexpr char kDurationShortAttr[] = "d";
inline constexpr char kRepeatShortAttr[] = "r";
inline constexpr char kNumberShortAttr[] = "n";
inline constexpr char kIndexShortAttr[] = "i";

inline constexpr char kTrueValue[] = "true";
inline constexpr char kFalseValue[] = "false";
inline constexpr char kZeroValue[] = "0";
inline constexpr char kH264Value[] = "H264";
inline constexpr char kNoValue[] = "";

}  // namespace SmoothStreaming
