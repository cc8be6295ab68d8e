/* What the classes share: the process's SDK, whom its callbacks reach, and the way between C and objects. */
#ifndef TARVO_OBJC_SHARED_H
#define TARVO_OBJC_SHARED_H

#include <tarvo-c/engine.h>

#import <tarvo-objc/Tarvo.h>

/* ---- The SDK ---- */

/* The handle of the process's SDK, made at the first call and kept as long as the process, as the engine is. NULL when
 * there can be none, and where the log is written. */
tarvo_sdk* TVSdk(void);
/* What the binding itself keeps of the SDK's objects. */
NSUInteger TVOwnObjects(void);
/* Logs a caller's mistake. Whether it was done. */
BOOL TVDone(tarvo_result result, const char* what);
/* Logs what a host's object has thrown. */
void TVRaised(id exception, const char* callback);

/* Around each call into the host: a pool, and what is thrown ends here. */
#define TV_CALLBACK                                              \
  {                                                              \
    NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init]; \
    @try {
#define TV_END(name)         \
  }                          \
  @catch (id raised_) {      \
    TVRaised(raised_, name); \
  }                          \
  @try {                     \
    [pool_ release];         \
  } @catch (id raised_) {    \
    TVRaised(raised_, name); \
  }                          \
  }

/* ---- Whom its callbacks reach ---- */

/* Of `Tarvo`, which is not retained: whether there was none before. */
BOOL TVSetTarvo(Tarvo* tarvo);
/* Around its release, which no callback must come between: the last lets it go, and is to be sent after TVEndRelease
 * (NO); another before (YES). */
BOOL TVBeginRelease(Tarvo* tarvo);
void TVEndRelease(void);
/* The one there is, autoreleased. */
Tarvo* TVTarvo(void);
/* nil: the Tarvo. */
void TVSetEngineDelegate(id<LocationManagerDelegate> delegate);
id<LocationManagerDelegate> TVEngineDelegate(void);
void TVSetHostDelegate(id<TarvoHostDelegate> delegate);
void TVSetLogObserver(id<TarvoLogObserver> observer);

/* ---- The main queue, and handlers that come once ---- */

void TVAttachMainQueue(NSString* mode, BOOL attaches);
/* On the main thread at once, else once its run loop runs. */
void TVAttachMainQueueSoon(void);

/* A block or a message; `user` of a C function that calls TVHandled and TVReleased. */
@interface TVHandler : NSObject {
 @private
  TarvoCompletionHandler _block;
  id _target;
  SEL _selector;
}
/* nil without a block, or where blocks cannot be copied. */
- (instancetype)initWithBlock:(TarvoCompletionHandler)block;
/* nil when the target does not respond. */
- (instancetype)initWithTarget:(id)target selector:(SEL)selector;
@end
void TVHandled(void* handler);
void TVReleased(void* object);
BOOL TVBackgroundEvents(NSString* identifier, TVHandler* handler);

/* ---- Between C and objects; objects are autoreleased, nil and NULL are each other ---- */

NSString* TVString(const char* text);
const char* TVText(NSString* text); /* NULL too for what UTF-8 has not, and with a zero character in it */
NSString* TVTaken(char* text);      /* gives it back */
NSData* TVTakenData(char* text, size_t length);
id TVParsed(const char* json);
id TVTakenJson(char* json);
const char* TVJson(id object); /* NULL too for what JSON has not */
NSDate* TVDate(double seconds);
double TVSeconds(NSDate* date); /* NaN for nil */
NSNumber* TVNumber(double number);
NSValue* TVCoordinate(double latitude, double longitude);
id TVValue(tarvo_value value);       /* a text */
id TVValueOfJson(tarvo_value value); /* what else there is */
void TVSetText(tarvo_value value, NSString* text, const char* what);
void TVSetJson(tarvo_value value, id object, const char* what);
NSUserDefaults* TVDefaults(void);

@interface CLLocation (TVFix)
+ (instancetype)locationWithFix:(tarvo_fix)fix;
- (tarvo_fix)fix;
@end
NSArray* TVLocations(const tarvo_fix* fixes, size_t count);

@interface TarvoTrip (TVHandle)
/* What the function has given, which is given back. */
+ (instancetype)tripWithHandle:(tarvo_trip*)trip;
/* A new one; NULL when that cannot be. */
- (tarvo_trip*)newHandle;
@end

@interface TarvoLocationsHistory (TVHandle)
/* What the function has given, which is given back; nil for NULL. */
+ (instancetype)historyWithHandle:(tarvo_history*)history;
/* Keeps a share of its own. */
- (instancetype)initWithHandle:(tarvo_history*)history;
@end

@interface TarvoPosition (TVRecord)
/* NULL: without attributes. `texts` are those of the position before, shared where they are the same. */
- (instancetype)initWithRecord:(const tarvo_position*)record texts:(NSString**)texts;
- (CLLocation*)location; /* nil without coordinates and time */
@end
enum { TVTextCount = 6 };

/* The positions of a history, read as they are asked for. */
@interface TVPositions : NSArray {
 @private
  void* _impl;
}
- (instancetype)initWithHistory:(tarvo_history*)history;
@end

@interface TarvoPastTrip (TVRecord)
- (instancetype)initWithRecord:(const tarvo_past_trip*)record;
@end

@interface TarvoAlert (TVHandle)
- (instancetype)initWithAlert:(tarvo_alert*)alert;
@end

#endif
