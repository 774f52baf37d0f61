import com.vaultory.service.QRService;
import org.apache.commons.daemon.Daemon;
import org.apache.commons.daemon.DaemonContext;

/** The service as jsvc takes it; asks to be stopped once main has returned. */
public final class JsvcService implements Daemon {
    private DaemonContext context;

    @Override public void init(DaemonContext given) { context = given; }

    @Override public void start() {
        new Thread(() -> {
            try {
                QRService.main(context.getArguments());
            } catch (Exception failure) {
                context.getController().fail(failure);
            }
            context.getController().shutdown();
        }).start();
    }

    @Override public void stop() {}

    @Override public void destroy() {}
}
