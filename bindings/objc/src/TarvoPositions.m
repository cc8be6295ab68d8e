/* Stored positions, and the list of them that reads as it is asked. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#import "Shared.h"

/* ---- A position ---- */

struct position {
  tarvo_position record; /* without its texts */
  NSString* texts[TVTextCount];
};

#define POSITION ((struct position*)_impl)
#define RECORD (&POSITION->record)
#define NUMBERED(name, bit, member)                                    \
  -(NSNumber*)name {                                                   \
    return RECORD->has & bit ? TVNumber((double)RECORD->member) : nil; \
  }
#define COUNTED(name, bit, member)                                                 \
  -(NSNumber*)name {                                                               \
    return RECORD->has & bit ? [NSNumber numberWithLongLong:RECORD->member] : nil; \
  }
#define TRUE_OR_NOT(name, bit, member)                                              \
  -(NSNumber*)name {                                                                \
    return RECORD->has & bit ? [NSNumber numberWithBool:RECORD->member != 0] : nil; \
  }
#define DATED(name, bit, member)                             \
  -(NSDate*)name {                                           \
    return RECORD->has & bit ? TVDate(RECORD->member) : nil; \
  }
#define TEXT(name, place)          \
  -(NSString*)name {               \
    return POSITION->texts[place]; \
  }

@implementation TarvoPosition
- (instancetype)init {
  return [self initWithRecord:NULL texts:NULL];
}

- (void)dealloc {
  int i;
  for (i = 0; _impl != NULL && i < TVTextCount; ++i) [POSITION->texts[i] release];
  free(_impl);
  [super dealloc];
}

- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}

- (BOOL)isEqual:(id)other {
  int i;
  const struct position* its;
  if (![other isKindOfClass:[TarvoPosition class]]) return NO;
  its = ((TarvoPosition*)other)->_impl;
  for (i = 0; i < TVTextCount; ++i)
    if (POSITION->texts[i] != its->texts[i] && ![POSITION->texts[i] isEqual:its->texts[i]]) return NO;
  return memcmp(RECORD, &its->record, sizeof its->record) == 0;
}

- (NSUInteger)hash {
  return (NSUInteger)RECORD->index;
}

NUMBERED(latitude, TARVO_HAS_LATITUDE, latitude)
NUMBERED(longitude, TARVO_HAS_LONGITUDE, longitude)
NUMBERED(altitude, TARVO_HAS_ALTITUDE, altitude)
NUMBERED(horizontalAccuracy, TARVO_HAS_HORIZONTAL_ACCURACY, horizontal_accuracy)
NUMBERED(verticalAccuracy, TARVO_HAS_VERTICAL_ACCURACY, vertical_accuracy)
NUMBERED(course, TARVO_HAS_COURSE, course)
NUMBERED(speed, TARVO_HAS_SPEED, speed)
COUNTED(floor, TARVO_HAS_FLOOR, floor)
DATED(locationTimestamp, TARVO_HAS_FIX_TIME, fix_time)
DATED(eventTimestamp, TARVO_HAS_STORED_TIME, stored_time)
COUNTED(index, TARVO_HAS_INDEX, index)
TEXT(serviceAction, 0)
TEXT(localisationMethod, 1)
TEXT(userAction, 2)
TEXT(appName, 3)
TEXT(appAction, 4)
TEXT(identifierForVendor, 5)
TRUE_OR_NOT(unsent, TARVO_HAS_UNSENT, unsent)
TRUE_OR_NOT(sentWithoutACK, TARVO_HAS_SENT_WITHOUT_ACK, sent_without_ack)
@end

@implementation TarvoPosition (TVRecord)
- (instancetype)initWithRecord:(const tarvo_position*)record texts:(NSString**)texts {
  if ((self = [super init]) == nil) return nil;
  _impl = calloc(1, sizeof(struct position));
  if (_impl == NULL) {
    [self release];
    return nil;
  }
  if (record != NULL) {
    const char* given[TVTextCount] = {record->service_action, record->localisation_method,
                                      record->user_action,    record->app_name,
                                      record->app_action,     record->identifier_for_vendor};
    int i;
    *RECORD = *record;
    RECORD->service_action = RECORD->localisation_method = RECORD->user_action = NULL;
    RECORD->app_name = RECORD->app_action = RECORD->identifier_for_vendor = NULL;
    for (i = 0; i < TVTextCount; ++i) {
      if (given[i] == NULL) continue;
      if (texts[i] == nil || strcmp([texts[i] UTF8String], given[i]) != 0) {
        [texts[i] release];
        texts[i] = [TVString(given[i]) retain];
      }
      POSITION->texts[i] = [texts[i] retain];
    }
  }
  return self;
}

- (CLLocation*)location {
  const uint64_t needed = TARVO_HAS_LATITUDE | TARVO_HAS_LONGITUDE | TARVO_HAS_FIX_TIME;
  const tarvo_position* record = RECORD;
  tarvo_fix fix = {0};
  if ((record->has & needed) != needed) return nil;
  fix.latitude = record->latitude;
  fix.longitude = record->longitude;
  fix.altitude = record->altitude;
  fix.horizontal_accuracy = record->has & TARVO_HAS_HORIZONTAL_ACCURACY ? record->horizontal_accuracy : -1;
  fix.vertical_accuracy = record->has & TARVO_HAS_VERTICAL_ACCURACY ? record->vertical_accuracy : -1;
  fix.course = record->has & TARVO_HAS_COURSE ? record->course : -1;
  fix.speed = record->has & TARVO_HAS_SPEED ? record->speed : -1;
  fix.time = record->fix_time;
  fix.has_floor = (record->has & TARVO_HAS_FLOOR) != 0;
  fix.floor = (int32_t)record->floor;
  return [CLLocation locationWithFix:fix];
}
@end

/* ---- The list ---- */

enum { kPiece = 256, kMark = 4096 }; /* a mark is where reading can begin anew: behind that many positions each */

struct reading {
  pthread_mutex_t mutex;
  tarvo_history* history;
  NSUInteger count;
  tarvo_cursor* cursor; /* stands behind the piece */
  NSUInteger begin;     /* of the piece */
  NSMutableArray* piece;
  NSString* texts[TVTextCount];
  tarvo_cursor** marks; /* the first stands before position 0 */
  NSUInteger markCount;
};

#define READING ((struct reading*)_impl)

static NSUInteger position(const struct reading* reading) { return reading->begin + [reading->piece count]; }

/* Notes the cursor's place if none is noted for it. */
static void mark(struct reading* reading) {
  tarvo_cursor** grown;
  if (position(reading) != reading->markCount * kMark) return;
  grown = realloc(reading->marks, (reading->markCount + 1) * sizeof *grown);
  if (grown == NULL) return;
  reading->marks = grown;
  if (tarvo_cursor_copy(reading->cursor, &grown[reading->markCount]) == TARVO_OK) ++reading->markCount;
}

/* Begins at the mark before `index`, unless the cursor is nearer. */
static void seek(struct reading* reading, NSUInteger index) {
  const NSUInteger wanted = index / kMark < reading->markCount ? index / kMark : reading->markCount - 1;
  tarvo_cursor* cursor = NULL;
  if (position(reading) <= index && position(reading) >= wanted * kMark) return;
  if (tarvo_cursor_copy(reading->marks[wanted], &cursor) != TARVO_OK) return;
  tarvo_cursor_free(reading->cursor);
  reading->cursor = cursor;
  [reading->piece removeAllObjects];
  reading->begin = wanted * kMark;
}

/* The next piece. Whether there is one. */
static BOOL readOn(struct reading* reading, NSUInteger index) {
  const NSUInteger begin = position(reading);
  tarvo_position record = {0};
  NSUInteger i;
  record.size = sizeof record;
  [reading->piece removeAllObjects];
  reading->begin = begin;
  for (i = 0; i < kPiece && tarvo_cursor_next(reading->cursor, &record) == TARVO_OK; ++i) {
    /* Of those that are only passed nothing is made but their number. */
    id element = begin + kPiece > index ? (id)[[TarvoPosition alloc] initWithRecord:&record texts:reading->texts]
                                        : [[NSNull null] retain];
    [reading->piece addObject:element];
    [element release];
  }
  mark(reading);
  return i > 0;
}

@implementation TVPositions
- (instancetype)initWithHistory:(tarvo_history*)history {
  struct reading* reading = calloc(1, sizeof *reading);
  self = [super init];
  if (self == nil || reading == NULL) {
    free(reading);
    [self release];
    return nil;
  }
  _impl = reading;
  pthread_mutex_init(&reading->mutex, NULL);
  reading->history = tarvo_history_ref(history);
  reading->count = tarvo_history_positions(history);
  reading->piece = [[NSMutableArray alloc] initWithCapacity:kPiece];
  if (tarvo_history_read(history, &reading->cursor) == TARVO_OK) mark(reading);
  return self;
}

- (void)dealloc {
  struct reading* reading = READING;
  if (reading != NULL) {
    NSUInteger i;
    for (i = 0; i < reading->markCount; ++i) tarvo_cursor_free(reading->marks[i]);
    for (i = 0; i < TVTextCount; ++i) [reading->texts[i] release];
    free(reading->marks);
    tarvo_cursor_free(reading->cursor);
    tarvo_history_unref(reading->history);
    [reading->piece release];
    pthread_mutex_destroy(&reading->mutex);
    free(reading);
  }
  [super dealloc];
}

- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}

- (NSUInteger)count {
  return READING->count;
}

- (id)objectAtIndex:(NSUInteger)index {
  struct reading* reading = READING;
  id found = nil;
  if (index >= reading->count)
    [NSException raise:NSRangeException
                format:@"index %lu of %lu positions", (unsigned long)index, (unsigned long)reading->count];
  pthread_mutex_lock(&reading->mutex);
  if (reading->markCount > 0) {
    if (index < reading->begin || index >= position(reading)) seek(reading, index);
    while (index >= position(reading) && readOn(reading, index)) continue;
    if (index >= reading->begin && index < position(reading))
      found = [reading->piece objectAtIndex:index - reading->begin];
    [found retain];
  }
  pthread_mutex_unlock(&reading->mutex);
  return found != nil ? [found autorelease] : [[[TarvoPosition alloc] init] autorelease]; /* deleted meanwhile */
}
@end
