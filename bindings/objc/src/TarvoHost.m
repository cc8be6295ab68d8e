#include <stdint.h>

#import "Shared.h"

NSString* const TarvoErrorDomain = @"TarvoErrorDomain";
NSString* const UIApplicationDidFinishLaunchingNotification = @"UIApplicationDidFinishLaunchingNotification";
NSString* const UIApplicationDidBecomeActiveNotification = @"UIApplicationDidBecomeActiveNotification";
NSString* const UIApplicationWillResignActiveNotification = @"UIApplicationWillResignActiveNotification";
NSString* const UIApplicationDidEnterBackgroundNotification = @"UIApplicationDidEnterBackgroundNotification";
NSString* const UIDeviceBatteryStateDidChangeNotification = @"UIDeviceBatteryStateDidChangeNotification";

@implementation TarvoAlert
- (void)dealloc {
  tarvo_alert_unref(_impl);
  [super dealloc];
}

- (NSString*)title {
  const char *title = NULL, *message = NULL;
  tarvo_alert_texts(_impl, &title, &message);
  return TVString(title);
}

- (NSString*)message {
  const char *title = NULL, *message = NULL;
  tarvo_alert_texts(_impl, &title, &message);
  return TVString(message);
}

- (NSArray*)actions {
  NSMutableArray* actions = [NSMutableArray array];
  const char* title = NULL;
  int isCancel = 0;
  size_t i;
  for (i = 0; tarvo_alert_action(_impl, i, &title, &isCancel) == TARVO_OK; ++i) [actions addObject:TVString(title)];
  return actions;
}

- (BOOL)chooseAction:(NSUInteger)action {
  return TVDone(tarvo_alert_choose(_impl, action), "chooseAction");
}
@end

@implementation TarvoAlert (TVHandle)
- (instancetype)initWithAlert:(tarvo_alert*)alert {
  if ((self = [super init]) != nil) _impl = tarvo_alert_ref(alert);
  return self;
}
@end

static BOOL set(tarvo_result result, NSError** error) {
  if (result != TARVO_OK && error != NULL) {
    NSDictionary* info = [NSDictionary dictionaryWithObject:TVString(tarvo_result_text(result))
                                                     forKey:NSLocalizedDescriptionKey];
    *error = [NSError errorWithDomain:TarvoErrorDomain code:result userInfo:info];
  }
  return result == TARVO_OK;
}

static void post(NSString* notification) {
  [[NSNotificationCenter defaultCenter] postNotificationName:notification object:[TarvoHost class]];
}

static void told(tarvo_result result, NSString* notification) {
  if (TVDone(result, [notification UTF8String])) post(notification);
}

@implementation TarvoHost
+ (BOOL)setHome:(NSString*)directory error:(NSError**)error {
  /* fileSystemRepresentation would end at a zero character */
  return set(TVText(directory) == NULL ? TARVO_BAD_ARGUMENT : tarvo_set_home([directory fileSystemRepresentation]),
             error);
}

+ (BOOL)setInfo:(NSDictionary*)info error:(NSError**)error {
  return set(tarvo_set_info(TVJson(info)), error);
}

+ (BOOL)setServer:(NSString*)url allowPlainHTTP:(BOOL)allowed error:(NSError**)error {
  return set(tarvo_set_server(TVText(url), allowed), error);
}

+ (BOOL)setManualClock:(NSDate*)start error:(NSError**)error {
  return set(tarvo_set_manual_clock(TVSeconds(start)), error);
}

+ (BOOL)moveClock:(NSDate*)date {
  return TVDone(tarvo_move_clock(TVSeconds(date)), "moveClock");
}

+ (NSDate*)now {
  return TVDate(tarvo_now());
}

+ (void)setDelegate:(id<TarvoHostDelegate>)delegate {
  TVSetHostDelegate(delegate);
}

+ (void)setLogObserver:(id<TarvoLogObserver>)observer {
  TVSetLogObserver(observer);
}

+ (void)deliver:(NSArray*)locations {
  const NSUInteger count = [locations count];
  NSMutableData* fixes = [NSMutableData dataWithLength:count * sizeof(tarvo_fix)];
  tarvo_fix* out = [fixes mutableBytes];
  NSUInteger i;
  for (i = 0; i < count; ++i) {
    CLLocation* location = [locations objectAtIndex:i];
    if (![location isKindOfClass:[CLLocation class]]) {
      TVDone(TARVO_BAD_ARGUMENT, "deliver");
      return;
    }
    out[i] = [location fix];
  }
  TVDone(tarvo_deliver(out, count), "deliver");
}

+ (void)setAuthorizationStatus:(CLAuthorizationStatus)status {
  TVDone(tarvo_set_permission((tarvo_permission)status), "setAuthorizationStatus");
}

+ (CLAuthorizationStatus)authorizationStatus {
  return tarvo_get_permission();
}

+ (void)setBatteryState:(UIDeviceBatteryState)state level:(double)level {
  static int known = TARVO_BATTERY_UNKNOWN;
  if (!TVDone(tarvo_set_battery((tarvo_battery)state, level), "setBatteryState")) return;
  if (__atomic_exchange_n(&known, (int)state, __ATOMIC_SEQ_CST) != (int)state)
    post(UIDeviceBatteryStateDidChangeNotification);
}

+ (void)applicationDidFinishLaunching {
  told(tarvo_app_launched(), UIApplicationDidFinishLaunchingNotification);
}

+ (void)applicationDidBecomeActive {
  told(tarvo_set_app_state(TARVO_APP_ACTIVE), UIApplicationDidBecomeActiveNotification);
}

+ (void)applicationWillResignActive {
  told(tarvo_set_app_state(TARVO_APP_INACTIVE), UIApplicationWillResignActiveNotification);
}

+ (void)applicationDidEnterBackground {
  told(tarvo_set_app_state(TARVO_APP_BACKGROUND), UIApplicationDidEnterBackgroundNotification);
}

+ (void)attachMainQueueForMode:(NSString*)mode {
  TVAttachMainQueue(mode, YES);
}

+ (void)detachMainQueueForMode:(NSString*)mode {
  TVAttachMainQueue(mode, NO);
}

+ (BOOL)waitUntilIdle:(NSTimeInterval)seconds {
  return TVDone(tarvo_wait_until_idle(TVSdk(), seconds), "waitUntilIdle");
}

+ (BOOL)flush:(NSTimeInterval)seconds {
  return TVDone(tarvo_flush(TVSdk(), seconds, NULL), "flush");
}

+ (BOOL)probeWithTarget:(id)target selector:(SEL)selector {
  TVHandler* handler = [[TVHandler alloc] initWithTarget:target selector:selector]; /* the SDK's, which releases it */
  if (handler == nil) return TVDone(TARVO_BAD_ARGUMENT, "probe");
  if (TVDone(tarvo_probe(TVSdk(), TVHandled, handler, TVReleased), "probe")) return YES;
  [handler release];
  return NO;
}

+ (NSDictionary*)health {
  char* json = NULL;
  TVDone(tarvo_health(TVSdk(), &json), "health");
  return TVTakenJson(json);
}

+ (BOOL)eraseEverything {
  return TVDone(tarvo_erase_everything(TVSdk()), "eraseEverything");
}

+ (NSUInteger)liveObjects {
  const NSUInteger own = TVOwnObjects();
  const NSUInteger all = tarvo_live_objects();
  return all > own ? all - own : 0;
}
@end
