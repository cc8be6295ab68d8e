/* The way between C and objects. */
#include <math.h>
#include <string.h>

#import "Shared.h"

NSString* TVString(const char* text) { return text == NULL ? nil : [NSString stringWithUTF8String:text]; }

const char* TVText(NSString* text) {
  const char* bytes = [text UTF8String];
  return bytes != NULL && strlen(bytes) == [text lengthOfBytesUsingEncoding:NSUTF8StringEncoding] ? bytes : NULL;
}

NSString* TVTaken(char* text) {
  NSString* string = TVString(text);
  tarvo_free(text);
  return string;
}

NSData* TVTakenData(char* text, size_t length) {
  NSData* data = text == NULL ? nil : [NSData dataWithBytes:text length:length];
  tarvo_free(text);
  return data;
}

/* Foundation reads and writes lists and objects alone: everything goes as a list of one. */
id TVParsed(const char* json) {
  NSMutableData* list;
  NSArray* parsed;
  if (json == NULL) return nil;
  list = [NSMutableData dataWithBytes:"[" length:1];
  [list appendBytes:json length:strlen(json)];
  [list appendBytes:"]" length:1];
  parsed = [NSJSONSerialization JSONObjectWithData:list options:0 error:NULL];
  return [parsed count] == 1 ? [parsed objectAtIndex:0] : nil;
}

id TVTakenJson(char* json) {
  id object = TVParsed(json);
  tarvo_free(json);
  return object;
}

const char* TVJson(id object) {
  NSData* list = nil;
  NSString* text;
  if (object == nil) return NULL;
  @try {
    list = [NSJSONSerialization dataWithJSONObject:[NSArray arrayWithObject:object] options:0 error:NULL];
  } @catch (id raised) {
    list = nil; /* an object of which JSON knows nothing */
  }
  if ([list length] < 2) return NULL;
  list = [list subdataWithRange:NSMakeRange(1, [list length] - 2)];
  text = [[[NSString alloc] initWithData:list encoding:NSUTF8StringEncoding] autorelease];
  return [text UTF8String];
}

NSDate* TVDate(double seconds) { return isnan(seconds) ? nil : [NSDate dateWithTimeIntervalSince1970:seconds]; }
double TVSeconds(NSDate* date) { return date == nil ? nan("") : [date timeIntervalSince1970]; }
NSNumber* TVNumber(double number) { return [NSNumber numberWithDouble:number]; }

/* GNUstep takes a value of two doubles for a point, of which its getValue: gives the half. */
@interface TVCoordinateValue : NSValue {
 @private
  CLLocationCoordinate2D _coordinate;
}
@end

@implementation TVCoordinateValue
- (instancetype)initWithBytes:(const void*)bytes objCType:(const char*)type {
  (void)type;
  memcpy(&_coordinate, bytes, sizeof _coordinate);
  return self;
}

- (void)getValue:(void*)bytes {
  memcpy(bytes, &_coordinate, sizeof _coordinate);
}

- (const char*)objCType {
  return @encode(CLLocationCoordinate2D);
}

- (BOOL)isEqualToValue:(NSValue*)other {
  return [other isKindOfClass:[TVCoordinateValue class]] &&
         memcmp(&_coordinate, &((TVCoordinateValue*)other)->_coordinate, sizeof _coordinate) == 0;
}

- (BOOL)isEqual:(id)other {
  return [self isEqualToValue:other];
}

- (NSUInteger)hash {
  return (NSUInteger)(long long)(_coordinate.latitude * 1e7 + _coordinate.longitude * 1e3);
}

- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}

- (NSString*)description {
  return [NSString stringWithFormat:@"<%+.8f,%+.8f>", _coordinate.latitude, _coordinate.longitude];
}
@end

NSValue* TVCoordinate(double latitude, double longitude) {
  const CLLocationCoordinate2D coordinate = CLLocationCoordinate2DMake(latitude, longitude);
  return [[[TVCoordinateValue alloc] initWithBytes:&coordinate objCType:@encode(CLLocationCoordinate2D)] autorelease];
}

static char* valueOf(tarvo_value value) {
  char* text = NULL;
  TVDone(tarvo_get_value(TVSdk(), value, &text), "value");
  return text;
}

id TVValue(tarvo_value value) { return TVTaken(valueOf(value)); }
id TVValueOfJson(tarvo_value value) { return TVTakenJson(valueOf(value)); }

void TVSetText(tarvo_value value, NSString* text, const char* what) {
  TVDone(tarvo_set_value(TVSdk(), value, TVText(text)), what);
}

void TVSetJson(tarvo_value value, id object, const char* what) {
  TVDone(tarvo_set_value(TVSdk(), value, TVJson(object)), what);
}

/* The SDK's settings behind the class that hosts know. Its typed accessors stand on these. */
@interface TVUserDefaults : NSUserDefaults
@end

@implementation TVUserDefaults
- (instancetype)init {
  return self; /* nothing of the program's own settings is read */
}

- (id)objectForKey:(NSString*)key {
  char* json = NULL;
  TVDone(tarvo_get_setting(TVSdk(), TVText(key), &json), "settings");
  return TVTakenJson(json);
}

- (void)setObject:(id)object forKey:(NSString*)key {
  const char* json = TVJson(object);
  if (json == NULL && object != nil)
    TVDone(TARVO_BAD_ARGUMENT, "settings");
  else
    TVDone(tarvo_set_setting(TVSdk(), TVText(key), json), "settings");
}

- (void)setBool:(BOOL)truth forKey:(NSString*)key {
  [self setObject:[NSNumber numberWithBool:truth] forKey:key];
}

- (void)removeObjectForKey:(NSString*)key {
  TVDone(tarvo_set_setting(TVSdk(), TVText(key), NULL), "settings");
}

/* What the class beneath would look for in domains that were never read: the SDK's settings cannot be listed. */
- (NSDictionary*)dictionaryRepresentation {
  return [NSDictionary dictionary];
}

- (void)setPersistentDomain:(NSDictionary*)domain forName:(NSString*)name {
  (void)domain, (void)name;
  TVDone(TARVO_BAD_ARGUMENT, "settings");
}

- (BOOL)synchronize {
  return YES; /* each change is written at once */
}
@end

NSUserDefaults* TVDefaults(void) {
  static NSUserDefaults* defaults;
  @synchronized([LocationManager class]) {
    if (defaults == nil) defaults = [[TVUserDefaults alloc] init];
  }
  return defaults;
}
