// KLTCEConstants: the keys of the campaign configuration document and of the persisted counter
// records, the serial queue's label and the plug-in's version number. Rule code names document keys
// only through these constants.
#pragma once

// Document and counter-record keys.
inline constexpr char kKLTConfigs[] = "configs";
inline constexpr char kKLTConfigId[] = "_id";
inline constexpr char kKLTID[] = "id";
inline constexpr char kKLTSequenceEnabled[] = "sequence_enabled";
inline constexpr char kKLTEnabled[] = "enabled";
inline constexpr char kKLTAudience[] = "audience";
inline constexpr char kKLTAudienceType[] = "audience_type";
inline constexpr char kKLTFTU[] = "FTU";
inline constexpr char kKLTAttributes[] = "attributes";
inline constexpr char kKLTUser[] = "user";
inline constexpr char kKLTSession[] = "session";
inline constexpr char kKLTStartDate[] = "start_date";
inline constexpr char kKLTEndDate[] = "end_date";
inline constexpr char kKLTValidity[] = "validity";
inline constexpr char kKLTCount[] = "count";
inline constexpr char kKLTSessionCount[] = "session_count";
inline constexpr char kKLTDayCount[] = "day_count";
inline constexpr char kKLTDay[] = "day";
inline constexpr char kKLTLimit[] = "limit";
inline constexpr char kKLTSessionLimit[] = "ses_lmt";
inline constexpr char kKLTDayLimit[] = "day_lmt";
inline constexpr char kKLTTimeInterval[] = "time_interval";
inline constexpr char kKLTOverall[] = "OVERALL";
inline constexpr char kKLTFrequency[] = "frequency";
inline constexpr char kKLTTimeLimitsInDay[] = "time_limits_in_day";
inline constexpr char kKLTTimeLimits[] = "time_limits";
inline constexpr char kKLTStartTime[] = "start_time";
inline constexpr char kKLTEndTime[] = "end_time";
inline constexpr char kKLTConditions[] = "conditions";
inline constexpr char kKLTSequence[] = "sequence";
inline constexpr char kKLTMeta[] = "meta";
inline constexpr char kKLTUI[] = "ui";
inline constexpr char kKLTDisplayType[] = "display_type";
inline constexpr char kKLTType[] = "type";
inline constexpr char kKLTSubType[] = "subtype";
inline constexpr char kKLTSurvey[] = "SURVEY";
inline constexpr char kKLTInApp[] = "IN_APP";
inline constexpr char kKLTInLine[] = "IN_LINE";
inline constexpr char kKLTPriority[] = "prio";
inline constexpr char kKLTActivity[] = "activity";
inline constexpr char kKLTEventType[] = "event_type";
inline constexpr char kKLTDetails[] = "details";
inline constexpr char kKLTTimeBounds[] = "time_bounds";
inline constexpr char kKLTCountConfig[] = "count_config";
inline constexpr char kKLTRuleType[] = "rule_type";
inline constexpr char kKLTCombineOperator[] = "combine_operator";
inline constexpr char kKLTTrigger[] = "trigger";
inline constexpr char kKLTAppEvent[] = "app_event";
inline constexpr char kKLTClientEvent[] = "client_event";
inline constexpr char kKLTActivityEvent[] = "activity_event";
inline constexpr char kKLTIdleTime[] = "idle_time";
inline constexpr char kKLTTime[] = "time";
inline constexpr char kKLTActivityTime[] = "activity_time";
inline constexpr char kKLTOperator[] = "operator";
inline constexpr char kKLTLower[] = "lower";
inline constexpr char kKLTUpper[] = "upper";
inline constexpr char kKLTName[] = "name";
inline constexpr char kKLTAdditionalInfo[] = "additional_info";
inline constexpr char kKLTAppStart[] = "app_start";

// Declared with the keys for the vocabulary; the counters are persisted under kKLTFrequencyStoreKey.
inline constexpr char kKLTFrequencyConfigLocation[] = "com.kelto.ce.freqency.config.json";
// The user-defaults key of the persisted counter map.
inline constexpr char kKLTFrequencyStoreKey[] = "klt_frequency_config";
// Label of the evaluator's serial task queue.
inline constexpr char kKLTCEOpsSerialQueue[] = "com.kelto.serial.ce_operations";
// The plug-in's version number, printed in the start-up line.
inline constexpr int kKLTContextEvalutorVersion = 128;

// Operator and combination words.
inline constexpr char kKLTOpEQ[] = "EQ";
inline constexpr char kKLTOpNEQ[] = "NEQ";
inline constexpr char kKLTOpGT[] = "GT";
inline constexpr char kKLTOpGTE[] = "GTE";
inline constexpr char kKLTOpLT[] = "LT";
inline constexpr char kKLTOpLTE[] = "LTE";
inline constexpr char kKLTAnd[] = "AND";
inline constexpr char kKLTOr[] = "OR";
