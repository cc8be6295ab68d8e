#import "Shared.h"

@implementation NetworkManager
+ (NSDictionary*)SUBSCRIPTION_LIST {
  return TVValueOfJson(TARVO_SUBSCRIPTION_LIST);
}
+ (void)setSUBSCRIPTION_LIST:(NSDictionary*)list {
  TVSetJson(TARVO_SUBSCRIPTION_LIST, list, "setSUBSCRIPTION_LIST");
}
+ (NSSet*)UNSUBSCRIPTION_LIST {
  return [NSSet setWithArray:TVValueOfJson(TARVO_UNSUBSCRIPTION_LIST)];
}
+ (void)setUNSUBSCRIPTION_LIST:(NSSet*)names {
  TVSetJson(TARVO_UNSUBSCRIPTION_LIST, [names allObjects], "setUNSUBSCRIPTION_LIST");
}
+ (NSString*)LAST_POI_VERSION {
  return @"poi_version";
}
+ (NSString*)SECRET_KEY {
  return TVValue(TARVO_SECRET_KEY);
}
+ (NSString*)apiKeySecret {
  return TVValue(TARVO_API_KEY_SECRET);
}
+ (void)setApiKeySecret:(NSString*)secret {
  TVSetText(TARVO_API_KEY_SECRET, secret, "setApiKeySecret");
}
+ (NSString*)UUID_SECRET_KEY {
  return TVValue(TARVO_UUID_SECRET);
}
+ (BOOL)CANAL_LOCK {
  return [TVValueOfJson(TARVO_CHANNEL_IS_HELD) boolValue];
}
+ (NSDate*)CANAL_TIME_LOCK {
  return TVDate([TVValueOfJson(TARVO_CHANNEL_TAKEN_AT) doubleValue]);
}
+ (NSInteger)LAST_TRIP_ID {
  return (NSInteger)[TVValueOfJson(TARVO_LAST_TRIP_ID) longLongValue];
}
@end
