/* The process's SDK, and whom its callbacks reach. */
#define _GNU_SOURCE
#include <pthread.h>

#import "Shared.h"

/* The SDK and what it is given; a delegate that goes may set another. Callbacks need it not. */
static pthread_mutex_t making = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static tarvo_sdk* theSdk;
static id hostDelegate;
static BOOL hasLogObserver;
/* Whom the engine tells. Nothing is called with it. */
static pthread_mutex_t reaching = PTHREAD_MUTEX_INITIALIZER;
static Tarvo* theTarvo;
static id engineDelegate;
static __thread BOOL isLogging;

BOOL TVDone(tarvo_result result, const char* what) {
  if (result < 0) NSLog(@"Tarvo: %s: %s", what, tarvo_result_text(result));
  return result == TARVO_OK;
}

void TVRaised(id exception, const char* callback) {
  if ([exception isKindOfClass:[NSException class]])
    NSLog(@"Tarvo: %s has thrown %@: %@", callback, [exception name], [exception reason]);
  else
    NSLog(@"Tarvo: %s has thrown %@", callback, exception);
}

/* ---- Whom the callbacks reach ---- */

/* A share of what one of the variables holds, autoreleased. */
static id reached(id* variable) {
  id share;
  pthread_mutex_lock(&reaching);
  share = [*variable retain];
  pthread_mutex_unlock(&reaching);
  return [share autorelease];
}

static void reach(id* variable, id object) {
  id before;
  [object retain];
  pthread_mutex_lock(&reaching);
  before = *variable;
  *variable = object;
  pthread_mutex_unlock(&reaching);
  [before release];
}

BOOL TVSetTarvo(Tarvo* tarvo) {
  BOOL isFirst;
  pthread_mutex_lock(&reaching);
  isFirst = theTarvo == nil;
  if (isFirst) theTarvo = tarvo;
  pthread_mutex_unlock(&reaching);
  return isFirst;
}

BOOL TVBeginRelease(Tarvo* tarvo) {
  pthread_mutex_lock(&reaching);
  if ([tarvo retainCount] > 1) return YES;
  if (theTarvo == tarvo) theTarvo = nil;
  pthread_mutex_unlock(&reaching);
  return NO;
}

void TVEndRelease(void) { pthread_mutex_unlock(&reaching); }

Tarvo* TVTarvo(void) { return reached(&theTarvo); }
void TVSetEngineDelegate(id<LocationManagerDelegate> delegate) { reach(&engineDelegate, delegate); }

id<LocationManagerDelegate> TVEngineDelegate(void) {
  id delegate = reached(&engineDelegate);
  return delegate != nil ? delegate : TVTarvo();
}

/* ---- Callbacks ---- */

static void onLocations(void* user, const tarvo_fix* fixes, size_t count) {
  (void)user;
  TV_CALLBACK
  [TVEngineDelegate() locationManagerDidReceiveNewLocations:[LocationManager sharedInstance]
                                               newLocations:TVLocations(fixes, count)];
  TV_END("locationManagerDidReceiveNewLocations")
}

static void onRouteMatched(void* user, tarvo_history* history) {
  TarvoLocationsHistory* matched;
  (void)user;
  TV_CALLBACK
  matched = [[[TarvoLocationsHistory alloc] initWithHandle:history] autorelease];
  [TVEngineDelegate() locationManagerOnRouteMatched:[LocationManager sharedInstance] locationsHistory:matched];
  TV_END("locationManagerOnRouteMatched")
}

static void onPrediction(void* user, tarvo_trip* trip) {
  (void)user, (void)trip;
  TV_CALLBACK
  [TVEngineDelegate() onPredictionUpdateDelegate];
  TV_END("onPredictionUpdateDelegate")
}

static void onReceiverStart(void* user, double accuracy) {
  TV_CALLBACK
  [(id)user tarvoReceiverStartWithAccuracy:accuracy];
  TV_END("tarvoReceiverStartWithAccuracy")
}

static void onReceiverStop(void* user) {
  TV_CALLBACK
  [(id)user tarvoReceiverStop];
  TV_END("tarvoReceiverStop")
}

static void onPrompt(void* user, tarvo_permission_request request) {
  TV_CALLBACK
  [(id)user tarvoRequestAuthorization:request == TARVO_ASK_ALWAYS];
  TV_END("tarvoRequestAuthorization")
}

static int onAlert(void* user, tarvo_alert* alert) {
  volatile int isShown = 0;
  TV_CALLBACK
  isShown = [(id)user tarvoPresentAlert:[[[TarvoAlert alloc] initWithAlert:alert] autorelease]] ? 1 : 0;
  TV_END("tarvoPresentAlert")
  return isShown;
}

static void onOpenUrl(void* user, const char* url) {
  TV_CALLBACK
  [(id)user tarvoOpenURL:[NSURL URLWithString:TVString(url)]];
  TV_END("tarvoOpenURL")
}

static void onRegisterForPush(void* user) {
  TV_CALLBACK
  [(id)user tarvoRegisterForRemoteNotifications];
  TV_END("tarvoRegisterForRemoteNotifications")
}

static void onFetchInterval(void* user, double seconds) {
  TV_CALLBACK
  [(id)user tarvoSetMinimumBackgroundFetchInterval:seconds];
  TV_END("tarvoSetMinimumBackgroundFetchInterval")
}

/* What a delegate lacks is not in the table: the SDK then does the least by itself. The delegate that a function
 * belongs to stays until no call of the table comes any more. */
static void setTable(tarvo_sdk* sdk, id delegate) {
  tarvo_callbacks table = {0};
  table.size = sizeof table;
  table.user = [delegate retain];
  table.released = TVReleased;
  table.locations = onLocations;
  table.route_matched = onRouteMatched;
  table.prediction = onPrediction;
#define TV_IF_HOST_HAS(member, function, method) \
  if ([delegate respondsToSelector:@selector(method)]) table.member = function
  TV_IF_HOST_HAS(receiver_start, onReceiverStart, tarvoReceiverStartWithAccuracy:);
  TV_IF_HOST_HAS(receiver_stop, onReceiverStop, tarvoReceiverStop);
  TV_IF_HOST_HAS(prompt, onPrompt, tarvoRequestAuthorization:);
  TV_IF_HOST_HAS(present_alert, onAlert, tarvoPresentAlert:);
  TV_IF_HOST_HAS(open_url, onOpenUrl, tarvoOpenURL:);
  TV_IF_HOST_HAS(register_for_push, onRegisterForPush, tarvoRegisterForRemoteNotifications);
  TV_IF_HOST_HAS(set_background_fetch_interval, onFetchInterval, tarvoSetMinimumBackgroundFetchInterval:);
#undef TV_IF_HOST_HAS
  if (!TVDone(tarvo_set_callbacks(sdk, &table), "callbacks")) [delegate release];
}

static void onLog(void* observer, const char* line, size_t length) {
  (void)length;
  if (isLogging) return; /* a line that was caused by the observer */
  isLogging = YES;
  TV_CALLBACK
  [(id)observer tarvoLogLine:TVString(line)];
  TV_END("tarvoLogLine")
  isLogging = NO;
}

/* ---- The SDK ---- */

tarvo_sdk* TVSdk(void) {
  tarvo_sdk* sdk = __atomic_load_n(&theSdk, __ATOMIC_ACQUIRE);
  if (sdk != NULL || isLogging) return isLogging ? NULL : sdk;
  pthread_mutex_lock(&making);
  if (theSdk == NULL && TVDone(tarvo_sdk_new(&sdk), "the SDK cannot be made")) {
    __atomic_store_n(&theSdk, sdk, __ATOMIC_RELEASE); /* first: what the table calls need not wait here */
    setTable(sdk, hostDelegate);
    [hostDelegate release];
    hostDelegate = nil;
  }
  sdk = theSdk;
  pthread_mutex_unlock(&making);
  return sdk;
}

void TVSetHostDelegate(id<TarvoHostDelegate> delegate) {
  tarvo_sdk* sdk;
  id before = nil;
  pthread_mutex_lock(&making);
  sdk = theSdk;
  if (sdk == NULL) { /* until it is made */
    before = hostDelegate;
    hostDelegate = [(id)delegate retain];
  }
  pthread_mutex_unlock(&making);
  [before release]; /* what goes is the host's: with no lock */
  if (sdk != NULL) setTable(sdk, delegate);
}

void TVSetLogObserver(id<TarvoLogObserver> observer) {
  pthread_mutex_lock(&making);
  if (TVDone(tarvo_set_log(observer == nil ? NULL : onLog, [(id)observer retain], TVReleased), "log"))
    hasLogObserver = observer != nil;
  else
    [(id)observer release];
  pthread_mutex_unlock(&making);
}

NSUInteger TVOwnObjects(void) {
  NSUInteger own;
  pthread_mutex_lock(&making);
  own = (theSdk != NULL ? 2 : 0) + (hasLogObserver ? 1 : 0); /* the handle and its table */
  pthread_mutex_unlock(&making);
  return own;
}
