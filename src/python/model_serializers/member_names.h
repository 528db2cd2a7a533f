#pragma once

#include "python_utils.h"

// The attributes and constructor keywords of the model classes.
namespace models::names {

using python_utils::MemberName;

inline constinit MemberName kAudio{"audio"};
inline constinit MemberName kAudioPublisher{"audio_publisher"};
inline constinit MemberName kAudioSettings{"audio_settings"};
inline constinit MemberName kAudioSubscribersMix{"audio_subscribers_mix"};
inline constinit MemberName kAv{"av"};
inline constinit MemberName kConnection{"connection"};
inline constinit MemberName kCreationTime{"creation_time"};
inline constinit MemberName kData{"data"};
inline constinit MemberName kDuration{"duration"};
inline constinit MemberName kEnableCaptions{"enable_captions"};
inline constinit MemberName kEnableMigration{"enable_migration"};
inline constinit MemberName kEnableOpusDtx{"enable_opus_dtx"};
inline constinit MemberName kEnableStereoMode{"enable_stereo_mode"};
inline constinit MemberName kFormat{"format"};
inline constinit MemberName kFps{"fps"};
inline constinit MemberName kFrameBuffer{"frame_buffer"};
inline constinit MemberName kHasAudio{"has_audio"};
inline constinit MemberName kHasVideo{"has_video"};
inline constinit MemberName kHeight{"height"};
inline constinit MemberName kId{"id"};
inline constinit MemberName kIsFinal{"is_final"};
inline constinit MemberName kLevel{"level"};
inline constinit MemberName kLogging{"logging"};
inline constinit MemberName kMilliseconds{"milliseconds"};
inline constinit MemberName kModelConstruct{"model_construct"};
inline constinit MemberName kName{"name"};
inline constinit MemberName kNumberOfChannels{"number_of_channels"};
inline constinit MemberName kNumberOfFrames{"number_of_frames"};
inline constinit MemberName kPreferredFramerate{"preferred_framerate"};
inline constinit MemberName kPreferredResolution{"preferred_resolution"};
inline constinit MemberName kResolution{"resolution"};
inline constinit MemberName kSampleBuffer{"sample_buffer"};
inline constinit MemberName kSampleRate{"sample_rate"};
inline constinit MemberName kStream{"stream"};
inline constinit MemberName kSubscribeToAudio{"subscribe_to_audio"};
inline constinit MemberName kSubscribeToCaptions{"subscribe_to_captions"};
inline constinit MemberName kSubscribeToVideo{"subscribe_to_video"};
inline constinit MemberName kText{"text"};
inline constinit MemberName kTimestamp{"timestamp"};
inline constinit MemberName kVideo{"video"};
inline constinit MemberName kVideoPublisher{"video_publisher"};
inline constinit MemberName kVideoSettings{"video_settings"};
inline constinit MemberName kWidth{"width"};

// Of the module `datetime`, and in it.
inline constinit MemberName kDatetime{"datetime"};
inline constinit MemberName kFromTimestamp{"fromtimestamp"};
inline constinit MemberName kTimedelta{"timedelta"};

}  // namespace models::names
